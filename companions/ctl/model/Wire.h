#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace kelto::halvek::ctl {

/**
 * Plain values as bytes, on their way from one process to another of the same program.
 *
 * A structure names its fields once, in an overload of `Travel(Wire&, Structure&)`, which serves both directions.
 */
class WireWriter {
public:
    void operator()(std::string& value) {
        Number(value.size());
        bytes.append(value);
    }

    template <typename Value>
    void operator()(Value& value) {
        if constexpr (std::is_enum_v<Value> || std::is_integral_v<Value>) {
            Number(static_cast<uint64_t>(value));
        } else {
            Travel(*this, value);
        }
    }

    template <typename Value>
    void operator()(std::vector<Value>& values) {
        Number(values.size());
        for (Value& value : values) {
            (*this)(value);
        }
    }

    void operator()(std::map<std::string, std::string>& values) {
        Number(values.size());
        for (auto& [key, value] : values) {
            std::string copy = key;
            (*this)(copy);
            (*this)(value);
        }
    }

    std::string Take() { return std::move(bytes); }

private:
    void Number(uint64_t number) { bytes.append(reinterpret_cast<const char*>(&number), sizeof number); }

    std::string bytes;
};

/** Reads what WireWriter has written, in the same order. Throws std::runtime_error where the bytes end too soon. */
class WireReader {
public:
    explicit WireReader(std::string_view written) : bytes(written) {}

    void operator()(std::string& value) { value = Take(Number()); }

    template <typename Value>
    void operator()(Value& value) {
        if constexpr (std::is_enum_v<Value> || std::is_integral_v<Value>) {
            value = static_cast<Value>(Number());
        } else {
            Travel(*this, value);
        }
    }

    template <typename Value>
    void operator()(std::vector<Value>& values) {
        const uint64_t count = Number();
        for (uint64_t i = 0; i < count; ++i) {
            (*this)(values.emplace_back());
        }
    }

    void operator()(std::map<std::string, std::string>& values) {
        const uint64_t count = Number();
        for (uint64_t i = 0; i < count; ++i) {
            const std::string_view key = Take(Number());
            values.emplace(key, Take(Number()));
        }
    }

private:
    uint64_t Number() {
        uint64_t number = 0;
        Take(sizeof number).copy(reinterpret_cast<char*>(&number), sizeof number);
        return number;
    }

    std::string_view Take(uint64_t count) {
        if (count > bytes.size()) {
            throw std::runtime_error("the model of the daemon has given half an answer");
        }
        const std::string_view taken = bytes.substr(0, static_cast<size_t>(count));
        bytes.remove_prefix(taken.size());
        return taken;
    }

    std::string_view bytes;
};

}  // namespace kelto::halvek::ctl

#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace kelto::halvek {
class EventSource;
class HalvekEnv;
}  // namespace kelto::halvek

namespace kelto::test {

/**
 * Has the source factory make what a test wants for some type names, for the length of a scope. All other names, and
 * all names outside of a scope, are the real factory's.
 *
 * It stands before the factory at link time. One at a time; a creator may throw, or return null.
 */
class SourceFactoryHook {
public:
    using Creator = std::function<std::unique_ptr<halvek::EventSource>(halvek::HalvekEnv*)>;
    using Creators = std::map<std::string, Creator>;

    explicit SourceFactoryHook(const Creators& creators);
    ~SourceFactoryHook();
    SourceFactoryHook(const SourceFactoryHook&) = delete;
    SourceFactoryHook& operator=(const SourceFactoryHook&) = delete;
};

}  // namespace kelto::test

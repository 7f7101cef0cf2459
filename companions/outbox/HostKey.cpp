#include "companions/outbox/HostKey.h"

#include "companions/outbox/FieldText.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <nettle/base64.h>
#include <nettle/sha2.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace kelto::halvek::outbox {

namespace {

constexpr uint16_t sshPort = 22;
constexpr long patienceSec = 15;

struct Seen {
    std::string key;
    int type = CURLKHTYPE_UNKNOWN;
};

/** The library shows the key before it logs in. Nothing is ever sent to a server that nobody trusts yet. */
int TakeKey(CURL*, const curl_khkey*, const curl_khkey* found, curl_khmatch, void* data) {
    auto& seen = *static_cast<Seen*>(data);
    seen.type = found->keytype;
    if (found->len == 0) {
        seen.key = found->key;
    } else {
        std::string text(BASE64_ENCODE_RAW_LENGTH(found->len), '\0');
        base64_encode_raw(text.data(), found->len, reinterpret_cast<const uint8_t*>(found->key));
        seen.key = text;
    }
    return CURLKHSTAT_REJECT;
}

std::string Decode(const std::string& text) {
    std::string bytes(BASE64_DECODE_LENGTH(text.size()), '\0');
    base64_decode_ctx context{};
    base64_decode_init(&context);
    size_t length = bytes.size();
    if (base64_decode_update(&context, &length, reinterpret_cast<uint8_t*>(bytes.data()), text.size(), text.data()) ==
        0) {
        throw std::runtime_error("the server's key cannot be read");
    }
    bytes.resize(length);
    return bytes;
}

/** The type stands in front of the key too, with its length in four bytes. */
std::string TypeOf(const std::string& bytes) {
    const size_t length = bytes.size() < 4 ? 0 : static_cast<unsigned char>(bytes[3]);
    return bytes.substr(std::min<size_t>(4, bytes.size()), length);
}

}  // namespace

HostKey HostKey::Ask(const std::string& place) {
    const size_t colon = place.find(':') == place.rfind(':') ? place.find(':') : std::string::npos;
    const std::string name = place.substr(0, colon);
    const std::optional<int64_t> port =
        colon == std::string::npos ? sshPort : FieldText::Number(place.substr(colon + 1), 65535);
    if (!port || *port == 0 || name.empty()) {
        throw std::runtime_error(place + " is no HOST and no HOST:PORT");
    }
    curl_global_init(CURL_GLOBAL_DEFAULT);
    const std::unique_ptr<CURL, void (*)(CURL*)> handle(curl_easy_init(), curl_easy_cleanup);
    Seen seen;
    const std::string authority = name.find(':') == std::string::npos ? name : "[" + name + "]";
    const std::string url = "sftp://" + authority + ":" + std::to_string(*port) + "/";
    std::array<char, CURL_ERROR_SIZE> error{};
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_PROXY, "");
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, patienceSec);
    curl_easy_setopt(handle.get(), CURLOPT_ERRORBUFFER, error.data());
    curl_easy_setopt(handle.get(), CURLOPT_SSH_KNOWNHOSTS, "/dev/null");
    curl_easy_setopt(handle.get(), CURLOPT_SSH_KEYFUNCTION, &TakeKey);
    curl_easy_setopt(handle.get(), CURLOPT_SSH_KEYDATA, &seen);
    const CURLcode result = curl_easy_perform(handle.get());
    if (seen.key.empty()) {
        throw std::runtime_error(place + ": " + (error[0] != '\0' ? error.data() : curl_easy_strerror(result)));
    }
    HostKey key;
    key.host = *port == sshPort ? name : "[" + name + "]:" + std::to_string(*port);
    key.key = seen.key;
    key.type = TypeOf(Decode(seen.key));
    return key;
}

std::string HostKey::Fingerprint() const {
    const std::string bytes = Decode(key);
    sha256_ctx context{};
    sha256_init(&context);
    sha256_update(&context, bytes.size(), reinterpret_cast<const uint8_t*>(bytes.data()));
    std::array<uint8_t, SHA256_DIGEST_SIZE> digest{};
    sha256_digest(&context, digest.size(), digest.data());
    std::string text(BASE64_ENCODE_RAW_LENGTH(digest.size()), '\0');
    base64_encode_raw(text.data(), digest.size(), digest.data());
    text.erase(text.find_last_not_of('=') + 1);
    return "SHA256:" + text;
}

void HostKey::Store(const std::string& path) const {
    std::string text;
    std::ifstream old(path);
    for (std::string line; std::getline(old, line);) {
        if (!line.starts_with(host + " ")) {
            text += line + "\n";
        }
    }
    text += host + " " + type + " " + key + "\n";
    const std::string temporary = path + ".new";
    std::ofstream file(temporary);
    file << text;
    file.close();
    if (!file || std::rename(temporary.c_str(), path.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

}  // namespace kelto::halvek::outbox

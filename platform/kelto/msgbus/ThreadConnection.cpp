#include "kelto/msgbus/ThreadConnection.h"

#include "kelto/osa/Exception.h"

#include <pthread.h>

#include <cstring>
#include <memory>

namespace kelto::msgbus {

namespace {

extern "C" void CloseConnection(void* connection) {
    const std::unique_ptr<BusConnection> closed(static_cast<BusConnection*>(connection));
}

void CheckResult(int error) {
    if (error != 0) {
        throw osa::Exception("Cannot keep a connection: %s", std::strerror(error));
    }
}

pthread_key_t MakeKey() {
    pthread_key_t key{};
    CheckResult(pthread_key_create(&key, CloseConnection));
    return key;
}

pthread_key_t Key() {
    static const pthread_key_t key = MakeKey();
    return key;
}

}  // namespace

BusConnection& ThreadConnection::Get(BusConnection::Clock::time_point deadline) {
    auto* const kept = static_cast<BusConnection*>(pthread_getspecific(Key()));
    if (kept != nullptr && kept->Drain()) {
        return *kept;
    }
    Close();
    auto opened = std::make_unique<BusConnection>(deadline);
    CheckResult(pthread_setspecific(Key(), opened.get()));
    return *opened.release();
}

void ThreadConnection::Close() {
    const std::unique_ptr<BusConnection> closed(static_cast<BusConnection*>(pthread_getspecific(Key())));
    if (closed != nullptr) {
        pthread_setspecific(Key(), nullptr);
    }
}

}  // namespace kelto::msgbus

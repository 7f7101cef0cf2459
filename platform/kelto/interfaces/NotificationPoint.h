#pragma once

#include "kelto/interfaces/INotificationPoint.h"
#include "kelto/msgbus/IMessageHandler.h"
#include "kelto/msgbus/IMsgBus.h"
#include "kelto/msgbus/MessageFilter.h"
#include "kelto/msgbus/MsgBusMsg.h"
#include "kelto/osa/Mutex.h"
#include "kelto/osa/MutexAutoLock.h"

#include <list>
#include <memory>
#include <utility>

namespace kelto::interfaces {

/** A notification point fed by a signal on the message bus. However many delegates, they share one match on the bus. */
template <typename Argument>
class NotificationPoint : public INotificationPoint<Argument> {
public:
    /** Makes the argument of a message; throws kelto::osa::Exception if it is not what it should be. */
    using Decode = Argument (*)(const msgbus::MsgBusMsg&);

    /** @param messageBus not owned, must outlive this object */
    NotificationPoint(msgbus::IMsgBus* messageBus, msgbus::MessageFilter signalFilter, Decode decodeMessage)
        : bus(messageBus), filter(std::move(signalFilter)), decode(decodeMessage), lock("NotificationPoint::Lock") {}

    ~NotificationPoint() override {
        for (const auto& registration : registrations) {
            bus->Unsubscribe(registration.get());
        }
    }

    void Add(std::unique_ptr<core::IVoidDelegate1<Argument>> delegate) override {
        auto registration = std::make_unique<Registration>(std::move(delegate), decode);
        Registration* const handler = registration.get();
        {
            const osa::MutexAutoLock guard(lock);
            registrations.push_back(std::move(registration));
        }
        try {
            bus->Subscribe(filter, handler);
        } catch (...) {
            const osa::MutexAutoLock guard(lock);
            registrations.remove_if([&](const auto& kept) { return kept.get() == handler; });
            throw;
        }
    }

    void Remove(const void* target) override {
        std::list<std::unique_ptr<Registration>> removed;
        {
            const osa::MutexAutoLock guard(lock);
            for (auto at = registrations.begin(); at != registrations.end();) {
                const auto next = std::next(at);
                if ((*at)->GetTarget() == target) {
                    removed.splice(removed.end(), registrations, at);
                }
                at = next;
            }
        }
        for (const auto& registration : removed) {
            bus->Unsubscribe(registration.get());
        }
    }

private:
    class Registration : public msgbus::IMessageHandler {
    public:
        Registration(std::unique_ptr<core::IVoidDelegate1<Argument>> registeredDelegate, Decode decodeMessage)
            : delegate(std::move(registeredDelegate)), decode(decodeMessage) {}

        void HandleMessage(const msgbus::MsgBusMsg& message) override { delegate->Invoke(decode(message)); }

        const void* GetTarget() const { return delegate->GetTarget(); }

    private:
        const std::unique_ptr<core::IVoidDelegate1<Argument>> delegate;
        const Decode decode;
    };

    msgbus::IMsgBus* const bus;
    const msgbus::MessageFilter filter;
    const Decode decode;
    osa::Mutex lock;
    std::list<std::unique_ptr<Registration>> registrations KELTO_THREAD_SAFETY(guarded_by(lock));
};

}  // namespace kelto::interfaces

#pragma once

#include "kelto/msgbus/IMsgBus.h"

#include <map>
#include <memory>
#include <string>

namespace kelto::halvek {

/**
 * What sources and handlers share: the message bus and components known by an id.
 *
 * Used on the event monitor's thread, under its lock, while sources and handlers are made; it has no lock of its own.
 * It owns the bus. It does not own the components: they survive every reload.
 */
class HalvekEnv {
public:
    /** A wrapper of something that several sources share. */
    class IHalvekComponent {
    public:
        virtual ~IHalvekComponent() = default;
        IHalvekComponent(const IHalvekComponent&) = delete;
        IHalvekComponent& operator=(const IHalvekComponent&) = delete;

    protected:
        IHalvekComponent() = default;
    };

    /** Creates the message bus; nothing is delivered before StartMsgBus. */
    HalvekEnv();
    ~HalvekEnv();
    HalvekEnv(const HalvekEnv&) = delete;
    HalvekEnv& operator=(const HalvekEnv&) = delete;

    /** The bus, which lives as long as this object. */
    msgbus::IMsgBus* GetMsgBus() const { return msgBus.get(); }

    /** Begins delivery. Called at the end of every configuration. */
    void StartMsgBus();

    /** Makes a component known; it must outlive this object. Throws kelto::osa::Exception if the id is taken. */
    void RegisterComponent(const std::string& id, IHalvekComponent* component);

    /** The component of that id, or null. */
    IHalvekComponent* GetComponent(const std::string& id) const;

private:
    std::unique_ptr<msgbus::IMsgBus> msgBus;
    std::map<std::string, IHalvekComponent*> components;
};

/** The environment's bus. Throws kelto::osa::Exception if there is no environment. */
msgbus::IMsgBus* BusOf(HalvekEnv* env);

}  // namespace kelto::halvek

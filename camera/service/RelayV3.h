#pragma once

#include "camera/device/Relay.h"
#include "camera/service/BankProvider.h"

#include <memory>
#include <vector>

namespace kelto::vcam {

/** The relay outputs, four in each bank. */
class RelayV3 : public BankProvider {
public:
    RelayV3(const ProviderContext& context);

    /** Adds the state of every relay, as the method GetState tells it. */
    void AppendState(sd_bus_message* reply) const;

private:
    void GetConfiguration(Arguments& arguments, Results& results);
    void SetConfiguration(Arguments& arguments, Results& results);
    void Activate(Arguments& arguments, Results& results);

    /** Reads bank and index. */
    Relay& ReadRelay(Arguments& arguments);

    static const sd_bus_vtable methods[];
    std::vector<std::unique_ptr<Relay>> relays;
};

}  // namespace kelto::vcam

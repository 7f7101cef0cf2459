#pragma once

#include "camera/service/Provider.h"

#include <array>
#include <cstddef>
#include <string>

namespace kelto::vcam {

/**
 * A provider of inputs or outputs in two banks: first "Remote", which belongs to another device, then "Local". Whoever
 * looks for the camera's own has to ask, and to pass over the first.
 */
class BankProvider : public Provider {
public:
    static constexpr std::array<const char*, 2> bankNames = {"Remote", "Local"};

protected:
    /** @param what   what a bank holds, in words
     *  @param number how many it holds */
    BankProvider(const ProviderContext& context, const std::string& providerName, const sd_bus_vtable* methods,
                 const std::string& what, size_t number);

    void GetBankNames(Arguments& arguments, Results& results);
    void IsRemote(Arguments& arguments, Results& results);

    /** The position of one of them among those of all banks. Throws Refusal if there is none such. */
    size_t Find(const std::string& bank, int32_t index) const;

private:
    static size_t FindBank(const std::string& bank);

    const std::string itemName;
    const size_t bankSize;
};

}  // namespace kelto::vcam

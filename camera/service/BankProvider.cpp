#include "camera/service/BankProvider.h"

#include "camera/runtime/Failure.h"
#include "camera/runtime/Refusal.h"

#include <algorithm>

namespace kelto::vcam {

namespace {

constexpr size_t remoteBank = 0;

}  // namespace

BankProvider::BankProvider(const ProviderContext& context, const std::string& providerName,
                           const sd_bus_vtable* methods, const std::string& what, size_t number)
    : Provider(context, providerName, methods), itemName(what), bankSize(number) {}

void BankProvider::GetBankNames(Arguments&, Results& results) {
    const int result = sd_bus_message_append(results.GetMessage(), "as", 2, bankNames[0], bankNames[1]);
    Check(result, "Cannot answer");
}

void BankProvider::IsRemote(Arguments& arguments, Results& results) {
    results.AppendBool(FindBank(arguments.ReadString()) == remoteBank);
}

size_t BankProvider::Find(const std::string& bank, int32_t index) const {
    const size_t bankPosition = FindBank(bank);
    if (index < 0 || static_cast<size_t>(index) >= bankSize) {
        throw Refusal("UnknownIndex", "Bank \"" + bank + "\" has no " + itemName + " " + std::to_string(index) +
                                          ", only 0 to " + std::to_string(bankSize - 1));
    }
    return bankPosition * bankSize + static_cast<size_t>(index);
}

size_t BankProvider::FindBank(const std::string& bank) {
    const auto* const found = std::find(bankNames.begin(), bankNames.end(), bank);
    if (found == bankNames.end()) {
        throw Refusal("UnknownBank", "There is no bank \"" + bank + R"(", only "Remote" and "Local")");
    }
    return static_cast<size_t>(found - bankNames.begin());
}

}  // namespace kelto::vcam

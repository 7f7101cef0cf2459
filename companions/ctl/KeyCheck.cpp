#include "companions/ctl/KeyCheck.h"

#include "companions/ctl/ValueForm.h"
#include "env/SettingsReader.h"
#include "kelto/core/StringUtil.h"
#include "kelto/osa/Exception.h"

#include <limits>
#include <optional>

namespace kelto::halvek::ctl {

namespace {

std::string WithUnit(int32_t number, const IntegerKey& key) {
    return std::to_string(number) + (*key.unit == '\0' ? "" : std::string(" ") + key.unit);
}

/** "an integer from 1 to 2147483" */
std::string Allowed(const IntegerKey& key) {
    const bool hasLowest = key.lowest != std::numeric_limits<int32_t>::min();
    const bool hasHighest = key.highest != std::numeric_limits<int32_t>::max();
    std::string text = "an integer";
    if (hasLowest && hasHighest) {
        text += " from " + std::to_string(key.lowest) + " to " + std::to_string(key.highest);
    } else if (hasLowest) {
        text += " of " + std::to_string(key.lowest) + " and more";
    }
    return text + (*key.unit == '\0' ? "" : std::string(", in ") + key.unit);
}

}  // namespace

void KeyCheck::Check(const std::string& group, const SettingsKey& key) {
    if (const auto* const integer = std::get_if<IntegerKey>(&key)) {
        CheckInteger(group, *integer);
    } else if (const auto* const boolean = std::get_if<BooleanKey>(&key)) {
        CheckBoolean(group, *boolean);
    }
}

void KeyCheck::CheckInteger(const std::string& group, const IntegerKey& key) {
    const std::string* const value = examination.Value(group, key.name);
    if (value == nullptr) {
        return;
    }
    int32_t taken = 0;
    try {
        SettingsReader(examination.ini.FindGroup(group)).TryRead(key, taken);
    } catch (const osa::Exception& exception) {
        Finding& finding = examination.AtValue(
            costs.id, group, key.name,
            Quoted(*value) + " is no integer: the daemon leaves this out; allowed is " + Allowed(key));
        finding.fix = ValueForm::Number(*value, key.unit);
        finding.foretells = std::string(costs.record) + exception.what();
        return;
    }
    int32_t number = 0;
    if (!core::StringUtil::TryParse(*value, number)) {
        Finding& finding = examination.AtValue("HK2003", group, key.name,
                                               Quoted(*value) + " is no integer: the daemon takes " +
                                                   WithUnit(taken, key) + "; allowed is " + Allowed(key));
        finding.fix = ValueForm::Number(*value, key.unit);
    } else if (number < key.lowest || number > key.highest) {
        reportOutOfRange(group, key, number);
    }
}

void KeyCheck::CheckBoolean(const std::string& group, const BooleanKey& key) {
    const std::string* const value = examination.Value(group, key.name);
    if (value == nullptr) {
        return;
    }
    try {
        SettingsReader(examination.ini.FindGroup(group)).Read(key);
    } catch (const osa::Exception& exception) {
        Finding& finding = examination.AtValue(
            costs.id, group, key.name, Quoted(*value) + " is neither true nor false: the daemon leaves this out");
        finding.fix = ValueForm::Boolean(*value);
        finding.foretells = std::string(costs.record) + exception.what();
    }
}

}  // namespace kelto::halvek::ctl

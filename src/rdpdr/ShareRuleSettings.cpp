#include "rdpdr/ShareRuleSettings.h"

#include "rdpdr/RedirectionSettings.h"

namespace fodr {

nt::ShareRules ReadShareRules()
{
    nt::ShareRules rules;
    RedirectionSettings settings;
    uint32_t number = 0;
    if (!settings.IsOpen())
        return rules;
    if (settings.ReadNumber("caseSensitivity", &number)) {
        if (number == 1)
            rules.names = nt::CaseRule::AnyCaseNoMerge;
        if (number == 2)
            rules.names = nt::CaseRule::Exact;
    }
    rules.readOnly = settings.ReadNumber("readOnlyShares", &number) && number != 0;
    rules.linksOutside = settings.ReadNumber("linksOutside", &number) && number != 0;
    return rules;
}

} // namespace fodr

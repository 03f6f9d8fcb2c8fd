#include "fleet/ReasonText.h"

#include "Answers.h"
#include "fleet/FleetSource.h"

namespace calvane_fleet {

std::string ReasonText(unsigned int reason) {
    switch (reason) {
        case kNotSelected:
            return "not selected by the device's policy";
        case kNotCopiedYet:
            return "not copied yet";
        default:
            return calvane_recording::ReasonText(reason);
    }
}

} // namespace calvane_fleet

#include "utils/log/FatalReport.h"

namespace NSCam::NSTavrel::Log {

void driverReport(const char* format, int err) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    tavrel_ruvex_trigger_exception(kDriverModule, format, -err, std::strerror(err));
#pragma GCC diagnostic pop
    NSCam::Utils::terminateService();
}

}  // namespace NSCam::NSTavrel::Log

#include "syslog_sink.h"

#include <syslog.h>

namespace nodeplatform_host {

void writeSyslogRecord(int priority, const char* text) { syslog(priority, "%s", text); }

}  // namespace nodeplatform_host

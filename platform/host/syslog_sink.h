// Where the host log service's records go: syslog in libnodeplatform, a
// recorder in the tests of the host platform.
#pragma once

namespace nodeplatform_host {

// Hands one finished record to syslog at priority.
void writeSyslogRecord(int priority, const char* text);

}  // namespace nodeplatform_host

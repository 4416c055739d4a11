// The writers of the remote unit's trace records: into user trace sets in
// shared memory and into "NVJ_System", the second region of the SRAM file.
// The records bring their own pids, tids and clock readings.
#pragma once

namespace nt {

// Test hook: forgets that this process has already reported a missing
// "NVJ_System" region, so that the next such call reports it again.
void forgetMissingRemoteSetReport() noexcept;

}  // namespace nt

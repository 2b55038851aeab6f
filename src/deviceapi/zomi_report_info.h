// The device report: tells the account server that the device is there, and acts on its verdict.
#pragma once

namespace nodelink {

// Returns 0 when the report succeeded, or when there is nothing to do: no linked account, or the
// report is switched off. Else -1 (logged) with the last error code set. A server that no longer
// accepts the device, or no longer knows the account, logs the device out, and the administrators
// are told.
[[nodiscard]] int ReportDeviceInfo();

}  // namespace nodelink

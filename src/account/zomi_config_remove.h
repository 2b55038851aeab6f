// Ending the device's link to its account, locally.
#pragma once

namespace nodelink {

// Tells the plug-ins that the account logs out and deletes the account record. Returns 0, also when
// there was no record; -1 when the plug-ins could not be told (the record is then kept, so that a
// logout that they did not see leaves the device linked) or privileges could not be raised.
[[nodiscard]] int ZomiConfigRemove();

}  // namespace nodelink

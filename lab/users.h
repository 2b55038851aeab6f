// Who else there is in the lab.
#pragma once

namespace lab {

// In a lab that an ordinary user started there is only root, and nobody to become.
bool HasOtherUsers();

}  // namespace lab

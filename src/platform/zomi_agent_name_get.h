// The device's user-agent text.
#pragma once

namespace nodelink {

// Fills `buffer` of `size` bytes. Returns -1 with kWrongParameters for a null buffer or a size
// below 1, else 0: when the platform cannot tell, that is logged and the buffer stays as it was,
// because a missing user agent never stops a request.
int DeviceApiUserAgentGet(char* buffer, int size);

}  // namespace nodelink

// Steers KIVOZOMIServerConfigGet, whose real implementation has no way to fail for these flows.
#pragma once

// While this is true the call fails.
bool& ServerConfigFails();

// Telling the platform's plug-ins about the account link.
#pragma once

#include <string>

namespace nodelink {

// Runs action number 4, or 5, of the plug-in "zomi" under the action name `action` (such as
// "zomi/login"). A failure is logged only: the caller's flow goes on.
void RunPluginAction4(const std::string& action);
void RunPluginAction5(const std::string& action);

}  // namespace nodelink

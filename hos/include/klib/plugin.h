// Plug-in actions: installed packages register programs for a named event; the caller runs them.
#pragma once

struct KLIBPLUGIN;

extern "C" {

// Opens the event `action` (such as "zomi/login") of the plug-in `plugin` and stores a handle in
// `*handle`. `place` is null or the address of `*handle` again; nothing else is done with it.
// Returns a negative number on failure, with `*handle` null.
int KLIBPluginSDKInit(const char* plugin, const char* action, KLIBPLUGIN** handle,
                      KLIBPLUGIN** place);

// Runs every program registered for the handle's event, in name order, with `number` in decimal as
// its one argument, 10 seconds each at most. Programs are the regular executable files of the
// event's folder, but for names that begin with '.' or end in '~'. All are run, whatever one of
// them does. Returns 0 or a positive number when each exited 0 (also when there is none); a
// negative number when one could not be started, ran out of time, failed, or was not run because
// the folder or the file is not root's or others may write it; or the handle is null.
int KLIBPluginAction(unsigned int number, KLIBPLUGIN* handle);

// Closes the handle; null is allowed. Returns 0 or a positive number on success.
int KLIBPluginExit(KLIBPLUGIN* handle);
}

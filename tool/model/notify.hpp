// Tells running services that limits have changed.
#ifndef ZEVOBW_TOOL_MODEL_NOTIFY_HPP
#define ZEVOBW_TOOL_MODEL_NOTIFY_HPP

namespace tool {

// Sends SIGHUP to every other process named "zevobandwidth". Those that cannot be reached learn of
// the change when they are started anew. Returns how many were told.
int NotifyTransfers();

// The same, and the web file manager's workers and the WebDAV server. FTP and rsync services have no
// way to be told: they read the limits anew with the next transfer.
void NotifyServices();

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_NOTIFY_HPP

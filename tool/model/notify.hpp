// Tells running services that limits have changed.
#ifndef ZEVOBW_TOOL_MODEL_NOTIFY_HPP
#define ZEVOBW_TOOL_MODEL_NOTIFY_HPP

namespace tool {

// Sends SIGHUP to every other process named "zevobandwidth", and returns how many got it.
int NotifyTransfers();

// Notifies also the web file manager's workers and the WebDAV server. FTP and rsync services cannot
// be notified: they read the limits anew with the next transfer.
void NotifyServices();

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_NOTIFY_HPP

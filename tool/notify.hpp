// Tells running transfers of this tool that limits have changed.
#ifndef ZEVOBW_TOOL_NOTIFY_HPP
#define ZEVOBW_TOOL_NOTIFY_HPP

namespace tool {

// Sends SIGHUP to every other process named "zevobandwidth". Those that cannot be reached learn of
// the change when they are started anew; nothing is reported.
void NotifyTransfers();

} // namespace tool

#endif // ZEVOBW_TOOL_NOTIFY_HPP

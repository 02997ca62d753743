// Tells the system manager that the service is ready.
#pragma once

namespace zeld {

// Sends READY=1 to the socket that NOTIFY_SOCKET names, if it names one.  The
// manager's not listening is its own affair.
void notify_ready();

} // namespace zeld

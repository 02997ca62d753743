// Messages to the system manager.
#pragma once

namespace zel::platform {

// False when there is no manager to notify.
bool has_manager();

// Sends a state with these flags of sendto().  Failures are not reported.
void send_to_manager(const char *state, int flags);

} // namespace zel::platform

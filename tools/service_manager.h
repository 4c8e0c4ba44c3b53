#ifndef VEKMSG_TOOLS_SERVICE_MANAGER_H
#define VEKMSG_TOOLS_SERVICE_MANAGER_H

#include <string>

/// Tells the service manager that started this process a state such as "READY=1", by the protocol of
/// sd_notify(3). Without one (no NOTIFY_SOCKET in the environment) nothing happens, and a failure is only a
/// note: the manager notices by itself.
void tellServiceManager(const std::string& state);

#endif

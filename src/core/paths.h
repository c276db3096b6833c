#ifndef TALP_CORE_PATHS_H_
#define TALP_CORE_PATHS_H_

// Fixed, see docs/architecture.md.
constexpr char kConfigFile[] = "/etc/talp/talpconf.xml";
constexpr char kPidFile[] = "/var/run/talp/talp.pid";

#endif  // TALP_CORE_PATHS_H_

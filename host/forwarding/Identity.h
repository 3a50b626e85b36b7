#pragma once

#include "common/infra/Export.h"
#include "host/forwarding/Record.h"

#include <string>

// The machine, where nobody has named it: 16 hexadecimal digits, the 64-bit FNV-1a hash of
// "analytics-host:" and the text in `machineIdFile`, or the host's name where that file has none.
// The machine's id is a secret of the machine; half as many bits do not give it away.
ANALYTICS_TAG std::string deriveHostId(const std::string& machineIdFile = "/etc/machine-id");

// This process, as the origin of records. An empty `hostId` stands for the derived one.
ANALYTICS_TAG Origin makeOrigin(const std::string& hostId);

// The name of the running program.
ANALYTICS_TAG std::string programName();

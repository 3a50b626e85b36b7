#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"

#include <map>
#include <string>

// What every Tweaks answers to uintVal(), by name; a name that is not there gets the default. The
// tunables are a class without virtual operations, so the fake takes its place at link time: a
// program that calls this gets Tweaks::uintVal() from analytics_fakes. All else of Tweaks is the
// host's. One thread at a time.
ANALYTICS_TAG std::map<std::string, u32>& uintTweaks();

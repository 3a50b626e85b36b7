#pragma once

#include "common/infra/DynamicTweaks.h"
#include "common/infra/Export.h"
#include "common/infra/Tweaks.h"
#include "host/testing/FakeOutbox.h"
#include "host/testing/FakeTimer.h"
#include "host/testing/Installed.h"
#include "host/testing/RecordingMemShield.h"

// Fakes of the services that the library calls, installed for the lifetime of the object: first the
// memory tracker, so that the others give back what they hold to the tracker that it came from.
struct ANALYTICS_TAG FakeServices {
    RecordingMemShield memShield;
    Installed<MemShield, MemShield> installedMemShield{memShield};
    FakeTimer timer;
    Installed<ITimer, Timer> installedTimer{timer};
    FakeOutbox outbox;
    Installed<IParcelOutbox, ParcelOutbox> installedOutbox{outbox};
    Tweaks tweaks;
    Installed<Tweaks, Tweaks> installedTweaks{tweaks};
    DynamicTweaks dynamicTweaks;
    Installed<DynamicTweaks, DynamicTweaks> installedDynamicTweaks{dynamicTweaks};
};

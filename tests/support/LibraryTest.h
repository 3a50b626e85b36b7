#pragma once

#include "host/testing/FakeServices.h"
#include "host/testing/LogText.h"
#include "host/testing/ParcelText.h"
#include "tests/support/FailingMemory.h"

// A test among fakes of the services that the library calls. Each tracked object is given back by
// its end.
struct LibraryTest : testing::Test {
    void TearDown() override {
        services.outbox.freeAndRemoveAllParcels();
        EXPECT_EQ(services.memShield.live(), 0U);
    }

    FakeServices services;
    RecordingLog log;
};

#pragma once

#include "common/infra/Export.h"

// Base of everything that travels through the parcel outbox. It carries no type information: the
// parcel type under which a parcel was pushed says which class it is, and it is destroyed as that
// class, never through an IParcel*.
class ANALYTICS_VISIBLE IParcel {
protected:
    IParcel() = default;
};

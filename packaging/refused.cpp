// What the compiler must refuse, a case for each value of CASE.

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/TrackedAllocation.h"

struct WithoutVirtualDestructor {
    virtual void run() {}
};

void destroy(IParcel* parcel, WithoutVirtualDestructor* object) {
#if CASE == 1
    TRACKED_DELETE(parcel);
#elif CASE == 2
    TRACKED_DELETE(object);
#endif
}

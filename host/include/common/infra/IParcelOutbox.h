#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/IParcel.h"

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

// The process-wide queue of parcels between those who produce them and the one who forwards them,
// reached as Singleton<IParcelOutbox, ParcelOutbox>. Every operation may be called from any thread.
class ANALYTICS_EXPORT IParcelOutbox {
public:
    // What class stands behind an IParcel*. Signed, so that addEntry() takes it for an int, as it
    // does any plain enumeration.
    enum ParcelType : int {
        KEL_ANALYTICS = 0 // AnalyticsParcel
    };

    virtual ~IParcelOutbox() = default;

    // Takes the parcel over and returns RC_SUCCESS. An outbox that cannot keep a parcel destroys
    // it, or an older one, and returns RC_SUCCESS all the same. Any other status leaves the parcel
    // untouched with the caller, and so does a throw. A periodic report that is refused like this
    // is lost together with its memory, because its scheduler does not look at the status.
    virtual RcStatus pushParcel(IParcel* parcel, ParcelType type) = 0;
    // The oldest parcel of the type, owned by the caller from then on; null if there is none.
    virtual IParcel* popParcel(ParcelType type) = 0;
    // All parcels of the type, oldest first, owned by the caller from then on.
    virtual std::vector<IParcel*> popParcels(ParcelType type) = 0;
    virtual u64 size() const = 0;
    virtual bool isEmpty() const = 0;
    virtual u64 getMaxSize() const = 0;
    // Destroys every parcel that is held.
    virtual void freeAndRemoveAllParcels() = 0;
};

// The reference host's outbox: holds at most `maxSize` parcels. A push beyond that makes room by
// destroying the oldest one: a report that was just made is worth more than one that nobody
// fetched. What is dropped is counted and logged, one line when a run of drops begins and one when
// it ends. The constructor allocates the room for all parcels. After it only popParcels() needs
// memory, and leaves everything in place if it gets none.
class ANALYTICS_EXPORT ParcelOutbox final : public IParcelOutbox {
public:
    struct Counts {
        u64 pushed = 0;  // accepted
        u64 popped = 0;  // handed out
        u64 dropped = 0; // destroyed to make room
        u64 freed = 0;   // destroyed by freeAndRemoveAllParcels()
        u64 held = 0;    // now: pushed = popped + dropped + freed + held
    };

    // Throws std::invalid_argument if `maxSize` is 0.
    explicit ParcelOutbox(u64 maxSize = 5000);
    // Destroys what is still held.
    ~ParcelOutbox() override;
    ParcelOutbox(const ParcelOutbox&) = delete;
    ParcelOutbox& operator=(const ParcelOutbox&) = delete;

    // RC_BAD_PARAMETERS for a null parcel or an unknown type, which is left alone.
    RcStatus pushParcel(IParcel* parcel, ParcelType type) override;
    IParcel* popParcel(ParcelType type) override;
    std::vector<IParcel*> popParcels(ParcelType type) override;
    u64 size() const override;
    bool isEmpty() const override;
    u64 getMaxSize() const override;
    void freeAndRemoveAllParcels() override;

    // Blocks until a parcel is held, stopWaiting() was called or `limit` has passed. True if a
    // parcel is held.
    bool waitForParcel(std::chrono::milliseconds limit);
    // Blocks without a limit. False: waits are over and nothing is held.
    bool waitForParcel();
    // Ends all waits, present and future ones. Pushing and popping still work.
    void stopWaiting();

    // Is called by a push that finds the outbox empty, on the pusher's thread and with the outbox's
    // mutex held: it has to be short, and calls nothing of the outbox. Null: nobody is called, and
    // after the return nobody is any more.
    void setListener(std::function<void()> listener);

    Counts counts() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

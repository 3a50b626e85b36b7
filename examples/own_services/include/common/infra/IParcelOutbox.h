#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/IParcel.h"

#include <deque>

class ANALYTICS_EXPORT IParcelOutbox {
public:
    enum ParcelType { KEL_ANALYTICS = 0 };

    virtual ~IParcelOutbox() {}
    virtual RcStatus pushParcel(IParcel* parcel, ParcelType type) = 0;
    virtual IParcel* popParcel(ParcelType type) = 0;
    virtual std::deque<IParcel*> popParcels(ParcelType type) = 0;
    virtual u64 size() const = 0;
    virtual bool isEmpty() const = 0;
    virtual u64 getMaxSize() const = 0;
    virtual void freeAndRemoveAllParcels() = 0;
};

// Drops what goes beyond its maximum.
class ANALYTICS_EXPORT ParcelOutbox final : public IParcelOutbox {
public:
    ParcelOutbox(u64 maxSize = 5000) : m_maxSize(maxSize) {}
    RcStatus pushParcel(IParcel* parcel, ParcelType type) override;
    IParcel* popParcel(ParcelType type) override;
    std::deque<IParcel*> popParcels(ParcelType type) override;
    u64 size() const override { return m_parcels.size(); }
    bool isEmpty() const override { return m_parcels.empty(); }
    u64 getMaxSize() const override { return m_maxSize; }
    void freeAndRemoveAllParcels() override;

private:
    const u64 m_maxSize;
    std::deque<IParcel*> m_parcels;
};

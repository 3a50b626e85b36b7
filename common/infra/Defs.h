#pragma once

#include "common/infra/Export.h"

#include <cstdint>
#include <string>

using u32 = std::uint32_t;
using u64 = std::uint64_t;
using s64 = std::int64_t;

constexpr u64 OneSecondInMs = 1000;
constexpr u64 HOURS_IN_DAY = 24;

// Conversions to milliseconds: unsigned 64-bit arithmetic, wrapping modulo 2^64.
ANALYTICS_TAG constexpr u64 secondsToMs(u64 seconds) {
    return seconds * OneSecondInMs;
}
ANALYTICS_TAG constexpr u64 hoursToMs(u64 hours) {
    return secondsToMs(hours * 60 * 60);
}
ANALYTICS_TAG constexpr u64 daysToMs(u64 days) {
    return hoursToMs(days * HOURS_IN_DAY);
}

const std::string INVALID_IP_ADDRESS = "0.0.0.0";

// The host's status codes. The library passes a status through and never inspects it.
enum RcStatus {
    RC_SUCCESS,
    RC_ERROR,
    RC_WAIT,
    RC_ABORTED,
    RC_EMPTY,
    RC_OBJECT_DOESNT_EXIST,
    RC_OBJECT_UNDER_DESTRUCTION,
    RC_STOP,
    RC_OBJECT_ALREADY_EXISTS,
    RC_TASK_DELETED,
    RC_OBJECT_NEED_TO_SKIP,
    RC_REACH_LIMIT,
    RC_NO_RESOURCES,
    RC_OBJECT_DURING_CREATION,
    RC_NET_ERROR,
    RC_TIME_OUT,
    RC_SHOULD_RETRY,
    RC_PARTIAL_SUCCESS,
    RC_STOP_EXCLUDE_CURRENT,
    RC_STOP_INCLUDE_CURRENT,
    RC_VOLUME_RESTRICTED,
    RC_IO_ERROR,
    RC_CORRUPTED_OBJECT,
    RC_FILTER_ATTACHED,
    RC_IN_QUIESCE,
    RC_VIEW_IO_UNALLOWED,
    RC_PENDING,
    RC_LTR_CBT_FULL,
    RC_WRONG_OBJECT_STATE,
    RC_LTR_CBT_NOT_ENABLED,
    RC_DISABLED,
    RC_PARTIAL_GRAIN_LIST,
    RC_LTR_CBT_PERM_DISABLED,
    RC_CORRUPTED_GRAIN_LIST,
    RC_ORCHESTRATOR_GENERAL_ERROR,
    RC_OUT_OF_SPACE,
    RC_INNER_ERROR,
    RC_OUT_OF_SESSIONS,
    RC_RESTART_REQUIRED,
    RC_OBJECT_REMOVED,
    RC_PRE_PROCESSED,
    RC_FAILED_TO_FIND_CP,
    RC_LTR_OLDER_THAN_PREV_BACKUP_CP,
    RC_LTR_NO_CP_CBT,
    RC_DNS_NOT_CONFIGURED,
    RC_INVALID_CERTIFICATE,
    RC_BAD_PARAMETERS,
    RC_RECOVERABLE_DETACHED_VOLUME,
    RC_YIELD,
    RC_LAST
};
static_assert(sizeof(RcStatus) == 4 && RC_LAST == 49,
              "status codes are part of the host's interface");

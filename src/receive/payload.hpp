// The TLV array of a received message.
#pragma once

#include "zel/platform/transport.h"

#include <stdint.h>

namespace zel {

inline const void *payload_of(uint32_t kob_ctx, void *kob_msg)
{
    return mpkob_is_mpkob(kob_ctx, kob_msg) != 0 ? mpkob_payload_get(kob_ctx, kob_msg) : kob_payload_get(kob_msg);
}

} // namespace zel

// The headers of platform/ with default visibility, because this platform exports what they
// declare.  The headers themselves leave visibility to each port.
#pragma once

#pragma GCC visibility push(default)
#include "platform/avl_tree.h"
#include "platform/heartbeat.h"
#include "platform/tlv_array.h"
#include "platform/tlv_converter.h"
#include "platform/trace.h"
#include "platform/transport.h"
#pragma GCC visibility pop

// The headers of zel/platform/ with default visibility, because this platform exports what they
// declare.  The headers themselves leave visibility to each port.
#pragma once

#pragma GCC visibility push(default)
#include "zel/platform/avl_tree.h"
#include "zel/platform/heartbeat.h"
#include "zel/platform/tlv_array.h"
#include "zel/platform/tlv_converter.h"
#include "zel/platform/trace.h"
#include "zel/platform/transport.h"
#pragma GCC visibility pop

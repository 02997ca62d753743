// The interface that libzel asks for, marked as exported: the contract itself
// leaves it to each port how its symbols become visible.
#pragma once

#pragma GCC visibility push(default)
#include "platform/avl_tree.h"
#include "platform/heartbeat.h"
#include "platform/tlv_array.h"
#include "platform/tlv_converter.h"
#include "platform/trace.h"
#include "platform/transport.h"
#pragma GCC visibility pop

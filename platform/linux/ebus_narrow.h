// Integers of the width that a method's policy names.
#pragma once

#include "platform/ebus.h"

namespace ebus {

// Callers that know no widths (the bus's command line, JSON gateways) send every number in 32 or
// 64 bits. Returns `msg` itself when nothing has to change; otherwise a copy in `buf` in which each
// integer wider than its policy entry was narrowed if its value fits, unsigned. Null when memory is
// short.
blob_attr *narrow(const ebus_invoke_method_s &method, blob_attr *msg, blob_buf *buf);

} // namespace ebus

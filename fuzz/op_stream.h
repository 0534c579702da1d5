/* One input of the fuzzer: a stream of operations. Aborts when module and model disagree. */
#ifndef FUZZ_OP_STREAM_H
#define FUZZ_OP_STREAM_H

#include <stddef.h>

#include "qor_types.h"

void RunOpStream(const u8 *data, size_t size);

#endif

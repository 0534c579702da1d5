#include "fuzz/op_stream.h"

extern "C" int LLVMFuzzerTestOneInput(const u8 *data, size_t size)
{
    RunOpStream(data, size);
    return 0;
}

// A build without CUDA (no clang to make the PTX): no CUDA rows, so a CUDA pass
// fails cleanly.
#include "TremorDistiller_GPUCalls.h"

CudaCalls CudaRuntimeCalls() { return CudaCalls{}; }

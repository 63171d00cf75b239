// A build without a CUDA toolkit: no CUDA rows, so a CUDA pass fails cleanly.
#include "TremorDistiller_GPUCalls.h"

CudaCalls CudaRuntimeCalls() { return CudaCalls{}; }

// The part of the CUDA driver API the module uses, under the driver's own
// names and exported symbols (the _v2 ones where the driver has two). Nothing
// links against these: the module resolves them from the driver library at run
// time, so no toolkit is needed to build it, natively or for Windows.
#ifndef TD_STANDIN_CUDA_H
#define TD_STANDIN_CUDA_H

#include <stddef.h>

#ifdef _WIN32
#define CUDAAPI __stdcall
#else
#define CUDAAPI
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef enum cudaError_enum {
  CUDA_SUCCESS = 0,
  CUDA_ERROR_INVALID_VALUE = 1,
  CUDA_ERROR_INVALID_CONTEXT = 201,
  CUDA_ERROR_LAUNCH_FAILED = 719,
} CUresult;

typedef unsigned long long CUdeviceptr;
typedef struct CUctx_st* CUcontext;
typedef struct CUmod_st* CUmodule;
typedef struct CUfunc_st* CUfunction;
typedef struct CUstream_st* CUstream;

CUresult CUDAAPI cuInit(unsigned int flags);
CUresult CUDAAPI cuGetErrorString(CUresult error, const char** text);
CUresult CUDAAPI cuCtxGetCurrent(CUcontext* context);
CUresult CUDAAPI cuCtxSynchronize(void);
CUresult CUDAAPI cuModuleLoadData(CUmodule* module, const void* image);
CUresult CUDAAPI cuModuleUnload(CUmodule module);
CUresult CUDAAPI cuModuleGetFunction(CUfunction* function, CUmodule module, const char* name);
CUresult CUDAAPI cuLaunchKernel(CUfunction function, unsigned int gridDimX, unsigned int gridDimY,
                                unsigned int gridDimZ, unsigned int blockDimX, unsigned int blockDimY,
                                unsigned int blockDimZ, unsigned int sharedMemBytes, CUstream stream,
                                void** kernelParams, void** extra);
CUresult CUDAAPI cuMemAlloc_v2(CUdeviceptr* pointer, size_t bytes);
CUresult CUDAAPI cuMemcpyHtoD_v2(CUdeviceptr destination, const void* source, size_t bytes);
CUresult CUDAAPI cuMemFree_v2(CUdeviceptr pointer);

#ifdef __cplusplus
}
#endif

#endif

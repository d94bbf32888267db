#include "framework/VectorDispatch.h"

namespace basekit {

// __builtin_cpu_supports also checks that the operating system saves the wide
// registers, so a positive answer means the instructions are safe to run.
bool CpuHasAvx2() {
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
#else
    return false;
#endif
}

bool CpuHasAvx512() {
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
           __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl");
#else
    return false;
#endif
}

bool PathAvailable(VectorPath path) {
    switch (path) {
        case VectorPath::Plain:
            return true;
        case VectorPath::Avx2:
            return CpuHasAvx2();
        case VectorPath::Avx512:
            return CpuHasAvx512();
    }
    return false;
}

VectorPath BestVectorPath() {
    if (CpuHasAvx512()) return VectorPath::Avx512;
    if (CpuHasAvx2()) return VectorPath::Avx2;
    return VectorPath::Plain;
}

VectorPath UsablePath(VectorPath wanted) {
    if (wanted == VectorPath::Avx512 && !CpuHasAvx512()) wanted = VectorPath::Avx2;
    if (wanted == VectorPath::Avx2 && !CpuHasAvx2()) wanted = VectorPath::Plain;
    return wanted;
}

const char* VectorPathName(VectorPath path) {
    switch (path) {
        case VectorPath::Plain:
            return "plain";
        case VectorPath::Avx2:
            return "avx2";
        case VectorPath::Avx512:
            return "avx512";
    }
    return "unknown";
}

}  // namespace basekit

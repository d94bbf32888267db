#pragma once

namespace basekit {

// Instruction sets a vectorised kernel may choose between at run time. Every
// path of a kernel produces the same bits as the plain one; only speed differs.
enum class VectorPath { Plain = 0, Avx2 = 1, Avx512 = 2 };

// AVX2 usable by this process (CPU and operating system both support it).
bool CpuHasAvx2();

// AVX-512 F, DQ, BW and VL usable by this process; the kernels need all four.
bool CpuHasAvx512();

// Whether `path` can run on this machine (Plain always can).
bool PathAvailable(VectorPath path);

// The widest path this machine supports.
VectorPath BestVectorPath();

// `wanted` when this machine supports it, else the widest supported path below it.
VectorPath UsablePath(VectorPath wanted);

// Short lower-case name for logs and benchmark labels: "plain", "avx2", "avx512".
const char* VectorPathName(VectorPath path);

}  // namespace basekit

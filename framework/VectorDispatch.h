// Vector paths chosen at run time, and the one spelling of their compiler
// targets. A kernel's vector function carries its path's target attribute; a
// template written once over the vector width is defined between a path's
// BEGIN and END lines, so that every function it instantiates there gets the
// path's target. No file is compiled with -m flags: inline functions shared
// with the plain path must never carry wider instructions.
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

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define BASEKIT_HAVE_X86_VECTORS 1
// AVX-512 kernels may use F, DQ, BW and VL: CpuHasAvx512 asks for all four.
#define BASEKIT_TARGET_AVX2 __attribute__((target("avx2")))
#define BASEKIT_TARGET_AVX512 __attribute__((target("avx2,avx512f,avx512dq,avx512bw,avx512vl")))
#if defined(__clang__)
#define BASEKIT_BEGIN_AVX2 \
    _Pragma("clang attribute push(__attribute__((target(\"avx2\"))), apply_to = function)")
#define BASEKIT_BEGIN_AVX512                                                                   \
    _Pragma(                                                                                   \
        "clang attribute push(__attribute__((target(\"avx2,avx512f,avx512dq,avx512bw,avx512vl\"))), apply_to = function)")
#define BASEKIT_END_TARGET _Pragma("clang attribute pop")
#else
#define BASEKIT_BEGIN_AVX2 _Pragma("GCC push_options") _Pragma("GCC target(\"avx2\")")
#define BASEKIT_BEGIN_AVX512 \
    _Pragma("GCC push_options") _Pragma("GCC target(\"avx2,avx512f,avx512dq,avx512bw,avx512vl\")")
#define BASEKIT_END_TARGET _Pragma("GCC pop_options")
#endif
#endif

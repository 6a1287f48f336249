// CodeView register numbers of x86 and x64 (the published CV_HREG_e values), with the names the
// debugger's expressions use for them ("rax", "r10d", "r10l", "xmm3").
#pragma once
#include "base/types.h"

// X(name, number)
#define KTRN_CV_REGISTERS(X)                                                                          \
  X(al, 1) X(cl, 2) X(dl, 3) X(bl, 4) X(ah, 5) X(ch, 6) X(dh, 7) X(bh, 8)                            \
  X(ax, 9) X(cx, 10) X(dx, 11) X(bx, 12) X(sp, 13) X(bp, 14) X(si, 15) X(di, 16)                     \
  X(eax, 17) X(ecx, 18) X(edx, 19) X(ebx, 20) X(esp, 21) X(ebp, 22) X(esi, 23) X(edi, 24)            \
  X(eip, 33) X(eflags, 34)                                                                            \
  X(xmm0, 154) X(xmm1, 155) X(xmm2, 156) X(xmm3, 157) X(xmm4, 158) X(xmm5, 159) X(xmm6, 160)         \
  X(xmm7, 161) X(xmm8, 252) X(xmm9, 253) X(xmm10, 254) X(xmm11, 255) X(xmm12, 256) X(xmm13, 257)      \
  X(xmm14, 258) X(xmm15, 259)                                                                         \
  X(sil, 324) X(dil, 325) X(bpl, 326) X(spl, 327)                                                     \
  X(rax, 328) X(rbx, 329) X(rcx, 330) X(rdx, 331) X(rsi, 332) X(rdi, 333) X(rbp, 334) X(rsp, 335)    \
  X(r8, 336) X(r9, 337) X(r10, 338) X(r11, 339) X(r12, 340) X(r13, 341) X(r14, 342) X(r15, 343)      \
  X(r8l, 344) X(r9l, 345) X(r10l, 346) X(r11l, 347) X(r12l, 348) X(r13l, 349) X(r14l, 350)           \
  X(r15l, 351) X(r8w, 352) X(r9w, 353) X(r10w, 354) X(r11w, 355) X(r12w, 356) X(r13w, 357)           \
  X(r14w, 358) X(r15w, 359) X(r8d, 360) X(r9d, 361) X(r10d, 362) X(r11d, 363) X(r12d, 364)           \
  X(r13d, 365) X(r14d, 366) X(r15d, 367)                                                              \
  X(ymm0, 368) X(ymm1, 369) X(ymm2, 370) X(ymm3, 371) X(ymm4, 372) X(ymm5, 373) X(ymm6, 374)         \
  X(ymm7, 375) X(ymm8, 376) X(ymm9, 377) X(ymm10, 378) X(ymm11, 379) X(ymm12, 380) X(ymm13, 381)     \
  X(ymm14, 382) X(ymm15, 383)                                                                         \
  X(vframe, 30006)

enum CvRegister : u16 {
#define KTRN_CV_REGISTER_ENUM(name, number) kCvReg_##name = number,
  KTRN_CV_REGISTERS(KTRN_CV_REGISTER_ENUM)
#undef KTRN_CV_REGISTER_ENUM
};

// The register's name, or null for a number not in the table.
const char *CvRegisterName(u16 number);

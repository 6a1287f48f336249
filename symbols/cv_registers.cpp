#include "symbols/cv_registers.h"

const char *CvRegisterName(u16 number) {
  switch (number) {
#define KTRN_CV_REGISTER_NAME(name, value) \
  case value: return #name;
    KTRN_CV_REGISTERS(KTRN_CV_REGISTER_NAME)
#undef KTRN_CV_REGISTER_NAME
  }
  return nullptr;
}

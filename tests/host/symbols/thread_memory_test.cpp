// Memory of threads that end: a PDB loaded on a thread that then ends (as the debugger thread of
// every run does) leaves nothing behind once its arena is released, scratch memory included.
#include <gtest/gtest.h>

#include <string>

#include "base/os.h"
#include "opened_pdb.h"

namespace {

struct LoadOnThread {
  std::string path;
  int status = -1;
  bool used_scratch = false;
};

void LoadAndRelease(void *context) {
  LoadOnThread *load = (LoadOnThread *)context;
  OpenedPdb opened(load->path);  // released on return, still on this thread
  load->status = opened.status;
  load->used_scratch = ScratchState()->newest != nullptr;
}

}  // namespace

TEST(ThreadMemory, PdbOpenOnThreadsThatEndLeavesNoMemoryBehind) {
  // Line sorting and the global tables take scratch memory on the loading thread.
  LoadOnThread load;
  load.path = std::string(KTRN_DATA_DIR) + "/pdb-corpus/ds_dump_syms_regtest64.pdb";
  u64 before = OsMemoryOutstandingBytes();
  for (int run = 0; run < 20; run++) {
    OsThread thread;
    ASSERT_EQ(OsThreadStart(LoadAndRelease, &load, &thread), kOsOk);
    OsThreadJoin(&thread);
    ASSERT_EQ(load.status, kPdbOk);
    ASSERT_TRUE(load.used_scratch);
  }
  EXPECT_EQ(OsMemoryOutstandingBytes(), before);
}

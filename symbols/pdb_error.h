// Result codes of PDB loading.
#pragma once

enum [[nodiscard]] PdbError : int {
  kPdbOk = 0,
  kPdbUnreadable = 2,           // cannot open or read; a required stream too small; "/names" malformed
  kPdbBadFormat = 13,           // superblock rejected; information or debug-information stream malformed
  kPdbUnsupportedVersion = 14,  // information stream version out of range; old debug-information format
  kPdbSignatureMismatch = 15,   // the PDB does not belong to the image (or its information stream is bad)
  kPdbStreamMissing = 16,       // no "/names" entry in the named-stream map
};

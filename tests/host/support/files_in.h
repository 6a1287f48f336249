// The files of a folder whose names end with a suffix (".pdb", ".exe"), as full paths, sorted.
#pragma once
#include <string>
#include <vector>

std::vector<std::string> FilesIn(const std::string &folder, const std::string &suffix);

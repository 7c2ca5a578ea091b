// The files of an installation: the library for each kind of program, and what vyr_setup keeps
// between runs.
#pragma once
#include <map>
#include <string>

#include "setup/image.h"

namespace setup {

bool FileExistsAt(const std::wstring& path);  // with %NAME% expanded

std::wstring FullPath(const std::wstring& path);

// The libraries to install: as given, else those that lie beside vyr_setup or in the other kind's
// build. False with a *problem if one was given that is missing or of the wrong kind, or if there
// is none at all.
bool FindLibraries(const std::map<Kind, std::wstring>& given, std::map<Kind, std::wstring>* found,
                   std::string* problem);

// The path of the vyr_setup for that kind: beside this one, or in the other kind's folder.
std::wstring ProgramOf(Kind kind);

// Where the journal and the record for uninstall are kept for a change of the machine: beside
// vyr_setup. Whoever may write there could replace vyr_setup itself, so that they need no more
// trust than it does. Both kinds keep one record, even if they lie in two folders, because either
// may have to finish what the other has begun.
std::wstring RecordPath(const wchar_t* name);

}  // namespace setup

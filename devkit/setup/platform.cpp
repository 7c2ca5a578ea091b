#include "setup/platform.h"

namespace setup {

bool IsElevated() {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return false;
  TOKEN_ELEVATION elevation = {};
  DWORD size = 0;
  const BOOL known =
      GetTokenInformation(token, TokenElevation, &elevation, sizeof elevation, &size);
  CloseHandle(token);
  return known && elevation.TokenIsElevated != 0;
}

bool Is64BitWindows() {
  BOOL emulated = FALSE;
  return sizeof(void*) == 8 || (IsWow64Process(GetCurrentProcess(), &emulated) && emulated);
}

OnlyOne::OnlyOne() : mutex_(CreateMutexW(nullptr, FALSE, L"Global\\vyr_setup")), held_(false) {
  const DWORD waited = mutex_ == nullptr ? WAIT_FAILED : WaitForSingleObject(mutex_, 0);
  held_ = waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED;
}

OnlyOne::~OnlyOne() {
  if (held_) ReleaseMutex(mutex_);
  if (mutex_ != nullptr) CloseHandle(mutex_);
}

}  // namespace setup

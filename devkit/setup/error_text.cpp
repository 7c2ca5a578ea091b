#include <iterator>
#include <string>

#include "setup/install_calls.h"
#include "setup/machine.h"

namespace setup {
namespace {

struct Reason {
  int error;
  const char* text;
};
// What the installation calls are documented to return.
constexpr Reason kReasons[] = {
    {WSAEACCES, "access denied: administrator rights are needed"},
    {WSAEFAULT, "Windows refuses the arguments"},
    {WSAEINVAL, "Windows refuses the arguments, or the provider is (or is not) there already"},
    {WSAEINPROGRESS, "another program is changing the catalogue"},
    {WSAENOBUFS, "the catalogue does not fit into the buffer"},
    {WSAEINVALIDPROVIDER, "Windows does not know the provider"},
    {WSANO_RECOVERY, "the registry could not be written: administrator rights are needed"},
    {WSATRY_AGAIN, "another program is changing the catalogue: try again"},
    {WSA_NOT_ENOUGH_MEMORY, "not enough memory"},
    {WSASYSCALLFAILURE, "a system call failed that should never fail"},
    {WSASERVICE_NOT_FOUND, "Windows knows no such program"},
    {ERROR_BUSY, "the catalogue is being changed by another program: try again"},
};

}  // namespace

std::string ErrorText(int error) {
  for (const Reason& reason : kReasons) {
    if (reason.error == error) return std::string(reason.text) + " (" + std::to_string(error) + ")";
  }
  return "error " + std::to_string(error);
}

}  // namespace setup

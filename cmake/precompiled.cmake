# What nearly every source includes, parsed once for each target. A file still includes what it
# uses: the fuzz preset and scripts/lint read src/ without these.
set(VYR_STANDARD_HEADERS <algorithm> <array> <atomic> <cstddef> <cstdint> <cstdio> <cstring>
  <functional> <map> <memory> <mutex> <new> <optional> <set> <span> <string> <string_view> <utility>
  <vector>)
set(VYR_PLATFORM_HEADERS <winsock2.h> <windows.h> <ws2spi.h>)

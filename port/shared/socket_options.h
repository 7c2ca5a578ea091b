// The values of socket options are passed as an int, or for SO_LINGER as two numbers, which have 16
// bits each on Windows and are ints in the host's record. The size tells the two apart. Errors are
// Winsock errors; 0 means success.
#pragma once

namespace port {

int PutOption(int value, char* out, int* size);
int PutLinger(int on, int seconds, char* out, int* size);
int ReadLinger(const char* value, int size, int* on, int* seconds);

}  // namespace port

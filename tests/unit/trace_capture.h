// Captures the debugger output while this object exists. One at a time.
//
// On Windows the text is taken from the exception with which OutputDebugStringA passes it to a
// debugger, elsewhere from the port's sink.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <string>
#include <vector>

#ifndef _WIN32
#include "port/shared/debug_output.h"
#endif

namespace test {

class TraceCapture {
 public:
  TraceCapture() {
    lines().clear();
#ifdef _WIN32
    handler_ = AddVectoredExceptionHandler(1, &OnException);
#else
    port::SetDebugSink([](const char* text) { lines().push_back(text); });
#endif
  }
  ~TraceCapture() {
#ifdef _WIN32
    RemoveVectoredExceptionHandler(handler_);
#else
    port::SetDebugSink(nullptr);
#endif
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // As written, with prefix and newline.
  static std::vector<std::string>& lines() {
    static std::vector<std::string> lines;
    return lines;
  }

 private:
#ifdef _WIN32
  static LONG WINAPI OnException(EXCEPTION_POINTERS* exception) {
    constexpr DWORD kPrintException = 0x40010006;
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    if (record.ExceptionCode != kPrintException) return EXCEPTION_CONTINUE_SEARCH;
    lines().push_back(reinterpret_cast<const char*>(record.ExceptionInformation[1]));
    return EXCEPTION_CONTINUE_EXECUTION;
  }

  PVOID handler_ = nullptr;
#endif
};

}  // namespace test

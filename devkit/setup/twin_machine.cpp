#include "setup/twin_machine.h"

#include <iostream>
#include <nlohmann/json.hpp>

#include "setup/guid_text.h"
#include "setup/image_json.h"
#include "setup/install_calls.h"
#include "setup/utf8.h"
#include "setup/winsock_machine.h"

namespace setup {
namespace {

struct Pipe {
  HANDLE read = nullptr;
  HANDLE write = nullptr;
  Pipe() {
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    CreatePipe(&read, &write, &inherited, 1 << 20);
  }
  ~Pipe() {
    Close(&read);
    Close(&write);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  static void Close(HANDLE* end) {
    if (*end != nullptr) CloseHandle(*end);
    *end = nullptr;
  }
};

bool Start(const std::wstring& program, const Pipe& in, const Pipe& out, HANDLE* process) {
  SetHandleInformation(in.write, HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(out.read, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = in.read;
  startup.hStdOutput = out.write;
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  std::wstring line = L"\"" + program + L"\" " + ToWide(kTwinOption);
  PROCESS_INFORMATION started = {};
  if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW,
                      nullptr, nullptr, &startup, &started)) {
    return false;
  }
  CloseHandle(started.hThread);
  *process = started.hProcess;
  return true;
}

std::string ReadAll(HANDLE pipe) {
  std::string text;
  char block[4096];
  DWORD got = 0;
  while (ReadFile(pipe, block, sizeof block, &got, nullptr) && got > 0) text.append(block, got);
  return text;
}

// The answer; empty if there is none. The pipe takes a whole request at once.
Json Ask(const std::wstring& program, const Json& request) {
  Pipe in;
  Pipe out;
  HANDLE process = nullptr;
  if (!Start(program, in, out, &process)) return {};
  Pipe::Close(&in.read);
  Pipe::Close(&out.write);
  const std::string line = request.dump() + "\n";
  DWORD written = 0;
  WriteFile(in.write, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
  Pipe::Close(&in.write);
  const std::string answer = ReadAll(out.read);
  WaitForSingleObject(process, INFINITE);
  CloseHandle(process);
  return Json::parse(answer, nullptr, false);
}

int ErrorOf(const Json& answer) {
  return answer.is_object() ? answer.value("error", WSASYSCALLFAILURE) : WSASYSCALLFAILURE;
}

int Serve(const Json& request, Machine* machine, Json* answer) {
  const std::string call = request.at("call");
  if (call == "read") {
    MachineImage image;
    const int error = machine->Read(&image);
    (*answer)["image"] = ToJson(image);
    return error;
  }
  if (call == "order") return machine->WriteOrder(winsock_host::kOwnKind, request.at("ids"));
  const GUID guid = ParseGuid(request.at("provider")).value_or(GUID{});
  if (call == "deinstall") return machine->Deinstall(winsock_host::kOwnKind, guid);
  if (call != "install") return WSAEINVAL;
  Provider provider = {guid, ToWide(request.at("path").get<std::string>()), {}};
  for (const Json& entry : request.at("entries")) provider.entries.push_back(EntryFromJson(entry));
  return machine->Install(winsock_host::kOwnKind, provider);
}

}  // namespace

int TwinMachine::Read(MachineImage* image) {
  const Json answer = Ask(program_, {{"call", "read"}});
  if (const int error = ErrorOf(answer)) return error;
  *image = ImageFromJson(answer.at("image"));
  return 0;
}

int TwinMachine::Install(Kind, const Provider& provider) {
  Json entries = Json::array();
  for (const WSAPROTOCOL_INFOW& entry : provider.entries) entries.push_back(ToJson(entry));
  return ErrorOf(Ask(program_, {{"call", "install"},
                                {"provider", GuidText(provider.guid)},
                                {"path", ToUtf8(provider.path)},
                                {"entries", entries}}));
}

int TwinMachine::Deinstall(Kind, const GUID& provider) {
  return ErrorOf(Ask(program_, {{"call", "deinstall"}, {"provider", GuidText(provider)}}));
}

int TwinMachine::WriteOrder(Kind, const std::vector<DWORD>& ids) {
  return ErrorOf(Ask(program_, {{"call", "order"}, {"ids", ids}}));
}

int TwinMachine::PermitCategories(const std::wstring&, DWORD) { return WSAEINVAL; }

int ServeTwinCall() {
  std::string line;
  std::getline(std::cin, line);
  WinsockMachine machine(winsock_host::kOwnKind, nullptr, {});
  Json answer;
  const int error = Serve(Json::parse(line), &machine, &answer);
  answer["error"] = error;
  std::cout << answer.dump() << std::endl;
  return 0;
}

}  // namespace setup

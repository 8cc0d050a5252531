#include "ChildProcess.h"

#include "TestSupport.h"

#if defined(_WIN32)
#include <windows.h>

#include <signal.h>
#include <cwctype>
#include <filesystem>
#include <mutex>
#else
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cerrno>

#if defined(_WIN32)

namespace quill_test {
namespace {

// A child that has closed its output is on its way out: it gets this long to finish, whatever is
// left of the caller's timeout.
constexpr std::chrono::seconds kEndAfterClosing(10);

// Exit status of a child ended by kill(), as a shell reports a process ended by SIGKILL.
constexpr UINT kKilledStatus = 137;

// Variables a cleared environment keeps on Windows: without them a program finds neither its DLLs
// nor the system's, and Winsock does not start.
const char* const kEssentialVariables[] = {"PATH", "SystemRoot", "windir", "SystemDrive"};

std::wstring wide(const std::string& utf8) {
  return std::filesystem::u8path(utf8).wstring();
}

std::string utf8(const std::wstring& text) {
  return std::filesystem::path(text).u8string();
}

bool sameName(const std::string& first, const std::string& second) {
  return first.size() == second.size() &&
         std::equal(first.begin(), first.end(), second.begin(), [](char a, char b) {
           return std::towupper(static_cast<unsigned char>(a)) ==
                  std::towupper(static_cast<unsigned char>(b));
         });
}

// One argument as the C runtime's parser (and CommandLineToArgvW) reads it back: quoted when it
// is empty or holds white space or a quote; backslashes doubled only where a quote follows them.
void appendQuoted(std::wstring& line, const std::wstring& argument) {
  if (!argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos) {
    line += argument;
    return;
  }
  line += L'"';
  std::size_t backslashes = 0;
  for (const wchar_t c : argument) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    if (c == L'"') {
      line.append(backslashes * 2 + 1, L'\\');
    } else {
      line.append(backslashes, L'\\');
    }
    backslashes = 0;
    line += c;
  }
  // Before the closing quote every backslash is doubled.
  line.append(backslashes * 2, L'\\');
  line += L'"';
}

std::wstring commandLine(const std::vector<std::string>& command) {
  std::wstring line;
  for (const auto& argument : command) {
    if (!line.empty()) {
      line += L' ';
    }
    appendQuoted(line, wide(argument));
  }
  return line;
}

// "NAME=value\0...\0\0", as CreateProcessW takes it with CREATE_UNICODE_ENVIRONMENT.
std::wstring environmentBlock(const std::vector<std::string>& entries) {
  std::wstring block;
  for (const auto& entry : entries) {
    block += wide(entry);
    block += L'\0';
  }
  if (block.empty()) {
    block += L'\0';
  }
  block += L'\0';
  return block;
}

// A handle the child inherits, for one of its standard streams; null when the stream is left alone
// and the test program has no such stream either.
HANDLE inheritableCopy(HANDLE original) {
  HANDLE copy = nullptr;
  if (original == nullptr || original == INVALID_HANDLE_VALUE ||
      DuplicateHandle(GetCurrentProcess(), original, GetCurrentProcess(), &copy, 0, TRUE,
                      DUPLICATE_SAME_ACCESS) == 0) {
    return nullptr;
  }
  return copy;
}

// A pipe whose reading end (ours) takes overlapped reads: an anonymous pipe cannot, so a named
// pipe of a unique name. `writing` is the inheritable end for the child.
HANDLE overlappedPipe(HANDLE& writing) {
  static LONG serial = 0;
  const std::wstring name = L"\\\\.\\pipe\\quill-test-" + std::to_wstring(GetCurrentProcessId()) +
                            L"-" + std::to_wstring(InterlockedIncrement(&serial));
  const HANDLE reading = CreateNamedPipeW(
      name.c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
      PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, 1, 64 * 1024, 64 * 1024, 0, nullptr);
  if (reading == INVALID_HANDLE_VALUE) {
    return nullptr;
  }
  SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  writing = CreateFileW(name.c_str(), GENERIC_WRITE, 0, &inherit, OPEN_EXISTING,
                        FILE_ATTRIBUTE_NORMAL, nullptr);
  if (writing == INVALID_HANDLE_VALUE) {
    writing = nullptr;
    CloseHandle(reading);
    return nullptr;
  }
  return reading;
}

// The child's end of one standard stream, and for a pipe our reading end in `reading`.
HANDLE childEnd(const ChildStream& stream, DWORD standard, HANDLE& reading) {
  reading = nullptr;
  switch (stream.to) {
    case ChildStream::To::Pipe: {
      HANDLE writing = nullptr;
      reading = overlappedPipe(writing);
      return writing;
    }
    case ChildStream::To::File: {
      SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
      const HANDLE file = CreateFileW(wide(stream.path).c_str(), GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      &inherit, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
      return file == INVALID_HANDLE_VALUE ? nullptr : file;
    }
    case ChildStream::To::Inherited:
      break;
  }
  return inheritableCopy(GetStdHandle(standard));
}

// A console control event reaches only processes of the sender's console: the test program gets
// one, when it runs without (as under ctest), before its first child, which then shares it. Its
// own standard handles stay where they were.
void shareAConsoleWithChildren() {
  static std::once_flag once;
  std::call_once(once, [] {
    const DWORD streams[] = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
    HANDLE saved[3];
    for (int i = 0; i < 3; ++i) {
      saved[i] = GetStdHandle(streams[i]);
    }
    if (AllocConsole() != 0) {
      for (int i = 0; i < 3; ++i) {
        SetStdHandle(streams[i], saved[i]);
      }
    }
  });
}

void closeAll(std::initializer_list<HANDLE> handles) {
  for (const HANDLE handle : handles) {
    if (handle != nullptr) {
      CloseHandle(handle);
    }
  }
}

}  // namespace

std::vector<std::string> ChildEnvironment::entries() const {
  std::vector<std::string> result;
  const auto dropped = [this](const std::string& name) {
    bool found = std::any_of(unset.begin(), unset.end(),
                             [&name](const std::string& other) { return sameName(name, other); });
    for (const auto& [setName, value] : set) {
      found = found || sameName(setName, name);
    }
    return found;
  };
  if (wchar_t* strings = GetEnvironmentStringsW(); strings != nullptr) {
    for (const wchar_t* entry = strings; *entry != L'\0'; entry += std::wcslen(entry) + 1) {
      const std::string text = utf8(entry);
      // Per-drive current directories ("=C:=C:\\...") start with '='.
      const auto name = text.substr(0, text.find('=', 1));
      const bool essential =
          std::any_of(std::begin(kEssentialVariables), std::end(kEssentialVariables),
                      [&name](const char* kept) { return sameName(name, kept); });
      if ((!clear || essential) && !dropped(name)) {
        result.push_back(text);
      }
    }
    FreeEnvironmentStringsW(strings);
  }
  for (const auto& [name, value] : set) {
    result.push_back(name + "=" + value);
  }
  return result;
}

ChildProcess::ChildProcess(const ChildLaunch& launch) {
  if (launch.command.empty() || launch.terminal || launch.runAs >= 0) {
    return;
  }
  shareAConsoleWithChildren();
  HANDLE outputReading = nullptr;
  HANDLE errorReading = nullptr;
  const HANDLE input = inheritableCopy(GetStdHandle(STD_INPUT_HANDLE));
  const HANDLE output = childEnd(launch.output, STD_OUTPUT_HANDLE, outputReading);
  const HANDLE errors = childEnd(launch.errors, STD_ERROR_HANDLE, errorReading);
  // The reading ends are ours from here on, whatever happens.
  out = ChildOutput(outputReading);
  err = ChildOutput(errorReading);
  const bool ready = (launch.output.to == ChildStream::To::Inherited || output != nullptr) &&
                     (launch.errors.to == ChildStream::To::Inherited || errors != nullptr) &&
                     (launch.output.to != ChildStream::To::Pipe || out.open()) &&
                     (launch.errors.to != ChildStream::To::Pipe || err.open());

  // Only these handles reach the child, not whatever else of the test program is inheritable (such
  // as another child's pipe, which would then never see its end).
  std::vector<HANDLE> inherited;
  for (const HANDLE handle : {input, output, errors}) {
    if (handle != nullptr &&
        std::find(inherited.begin(), inherited.end(), handle) == inherited.end()) {
      inherited.push_back(handle);
    }
  }
  SIZE_T attributeSize = 0;
  InitializeProcThreadAttributeList(nullptr, 1, 0, &attributeSize);
  std::vector<char> attributeStorage(attributeSize);
  auto* attributes = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(attributeStorage.data());
  const bool initialized =
      !inherited.empty() && InitializeProcThreadAttributeList(attributes, 1, 0, &attributeSize);
  const bool listed =
      initialized &&
      UpdateProcThreadAttribute(attributes, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherited.data(),
                                inherited.size() * sizeof(HANDLE), nullptr, nullptr);

  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof startup;
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdInput = input;
  startup.StartupInfo.hStdOutput = output;
  startup.StartupInfo.hStdError = errors;
  startup.lpAttributeList = listed ? attributes : nullptr;

  auto line = commandLine(launch.command);
  auto environment = environmentBlock(launch.environment.entries());
  const auto program = wide(launch.command.front());
  PROCESS_INFORMATION created{};
  const DWORD flags = CREATE_UNICODE_ENVIRONMENT | CREATE_NEW_PROCESS_GROUP |
                      (listed ? EXTENDED_STARTUPINFO_PRESENT : 0);
  if (ready && CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, flags,
                              environment.data(), nullptr, &startup.StartupInfo, &created) != 0) {
    CloseHandle(created.hThread);
    process = created.hProcess;
    pid = static_cast<pid_t>(created.dwProcessId);
  }
  if (initialized) {
    DeleteProcThreadAttributeList(attributes);
  }
  // The child has its copies: with ours closed, a pipe ends when the child's end does.
  closeAll({input, output, errors});
}

ChildProcess::~ChildProcess() {
  kill();
  if (process != nullptr) {
    CloseHandle(static_cast<HANDLE>(process));
  }
}

bool ChildProcess::signal(int number) {
  if (!started() || waitedFor || (number != SIGINT && number != SIGTERM)) {
    return false;
  }
  // The group's id is the id of the process that started it, the child.
  if (GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, static_cast<DWORD>(pid)) != 0) {
    return true;
  }
  // Wine 8 refuses CTRL_BREAK_EVENT (ERROR_INVALID_HANDLE) but delivers a CTRL_C_EVENT to the
  // group, to a child that takes Ctrl-C again (a new group starts out ignoring it). Windows takes
  // the break event above.
  return GenerateConsoleCtrlEvent(CTRL_C_EVENT, static_cast<DWORD>(pid)) != 0;
}

bool ChildProcess::signalsReachChildren() {
  shareAConsoleWithChildren();
  return GetConsoleWindow() != nullptr;
}

int ChildProcess::waitForExit(std::chrono::milliseconds timeout) {
  if (!started()) {
    return -1;
  }
  if (!waitedFor) {
    DWORD code = 0;
    if (WaitForSingleObject(static_cast<HANDLE>(process), static_cast<DWORD>(timeout.count())) !=
            WAIT_OBJECT_0 ||
        GetExitCodeProcess(static_cast<HANDLE>(process), &code) == 0) {
      return -1;
    }
    waitedFor = true;
    status = static_cast<int>(code);
  }
  return status;
}

void ChildProcess::kill() {
  if (started() && !waitedFor) {
    TerminateProcess(static_cast<HANDLE>(process), kKilledStatus);
    WaitForSingleObject(static_cast<HANDLE>(process), INFINITE);
    waitedFor = true;
  }
}

}  // namespace quill_test

#else

namespace quill_test {
namespace {

using Clock = std::chrono::steady_clock;

// A child that has closed its output is on its way out: it gets this long to finish, whatever is
// left of the caller's timeout.
constexpr std::chrono::seconds kEndAfterClosing(10);

std::vector<char*> pointersInto(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (auto& text : strings) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

int statusOf(int raw) {
  if (WIFEXITED(raw)) {
    return WEXITSTATUS(raw);
  }
  if (WIFSIGNALED(raw)) {
    return 128 + WTERMSIG(raw);
  }
  return -1;
}

// True when the child has ended, so that waitpid() returns at once, within the timeout.
bool endsWithin(pid_t pid, std::chrono::milliseconds timeout) {
  // By its system call: glibc's wrapper is not declared for C++ everywhere.
  const int descriptor = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (descriptor < 0) {
    // No process descriptors here: asking is all there is.
    return eventually(
        [pid] {
          siginfo_t info{};
          return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                 info.si_pid == pid;
        },
        timeout);
  }
  const auto deadline = Clock::now() + timeout;
  pollfd entry{descriptor, POLLIN, 0};
  int ready = 0;
  do {
    ready = poll(&entry, 1, static_cast<int>(timeLeft(deadline).count()));
  } while (ready < 0 && errno == EINTR && Clock::now() < deadline);
  close(descriptor);
  return ready > 0;
}

// Points `target` (standard output or error) where the stream goes; in the child, after fork().
void redirect(const ChildStream& stream, int pipeEnd, int target) {
  if (stream.to == ChildStream::To::Pipe) {
    dup2(pipeEnd, target);
  } else if (stream.to == ChildStream::To::File) {
    const int file = open(stream.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(file, target);
  }
}

// The child's side of the launch: only what is safe between fork() and exec. On a terminal, the
// standard streams are left on it.
[[noreturn]] void becomeChild(const ChildLaunch& launch, int outputPipe, int errorPipe,
                              char* const* argv, char* const* envp) {
  if (!launch.terminal) {
    redirect(launch.output, outputPipe, STDOUT_FILENO);
    redirect(launch.errors, errorPipe, STDERR_FILENO);
  }
  for (int fd = 3; fd < 1024; ++fd) {
    close(fd);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGINT, SIG_DFL);
  if (launch.runAs >= 0) {
    const auto id = static_cast<uid_t>(launch.runAs);
    if (setgroups(0, nullptr) != 0 || setgid(id) != 0 || setuid(id) != 0) {
      _exit(126);
    }
  }
  execve(argv[0], argv, envp);
  _exit(127);
}

// Where the stream goes into a pipe: one whose ends are closed on exec. {-1, -1} otherwise, or
// when no pipe could be made.
void pipeFor(const ChildStream& stream, int (&ends)[2]) {
  ends[0] = ends[1] = -1;
  if (stream.to == ChildStream::To::Pipe && pipe2(ends, O_CLOEXEC) != 0) {
    ends[0] = ends[1] = -1;
  }
}

}  // namespace

std::vector<std::string> ChildEnvironment::entries() const {
  std::vector<std::string> result;
  if (!clear) {
    for (char** entry = environ; *entry != nullptr; ++entry) {
      const std::string text = *entry;
      const auto name = text.substr(0, text.find('='));
      bool dropped = std::find(unset.begin(), unset.end(), name) != unset.end();
      for (const auto& [setName, value] : set) {
        dropped = dropped || setName == name;
      }
      if (!dropped) {
        result.push_back(text);
      }
    }
  }
  for (const auto& [name, value] : set) {
    result.push_back(name + "=" + value);
  }
  return result;
}

ChildProcess::ChildProcess(const ChildLaunch& launch) {
  if (launch.command.empty()) {
    return;
  }
  // Built before the fork: the child only calls what is safe between fork and exec.
  auto commandStorage = launch.command;
  auto environmentStorage = launch.environment.entries();
  const auto argv = pointersInto(commandStorage);
  const auto envp = pointersInto(environmentStorage);

  if (launch.terminal) {
    winsize size{};
    size.ws_row = launch.terminal->rows;
    size.ws_col = launch.terminal->columns;
    int terminal = -1;
    pid = forkpty(&terminal, nullptr, nullptr, &size);
    if (pid == 0) {
      becomeChild(launch, -1, -1, argv.data(), envp.data());
    }
    out = ChildOutput(terminal);
    return;
  }

  int outputPipe[2];
  int errorPipe[2];
  pipeFor(launch.output, outputPipe);
  pipeFor(launch.errors, errorPipe);
  // The reading ends are ours from here on, whatever happens.
  out = ChildOutput(outputPipe[0]);
  err = ChildOutput(errorPipe[0]);
  const bool piped = (launch.output.to != ChildStream::To::Pipe || out.open()) &&
                     (launch.errors.to != ChildStream::To::Pipe || err.open());
  if (piped) {
    pid = fork();
    if (pid == 0) {
      becomeChild(launch, outputPipe[1], errorPipe[1], argv.data(), envp.data());
    }
  }
  for (const int writing : {outputPipe[1], errorPipe[1]}) {
    if (writing >= 0) {
      close(writing);
    }
  }
}

ChildProcess::~ChildProcess() {
  kill();
}

bool ChildProcess::signal(int number) {
  return started() && !waitedFor && ::kill(pid, number) == 0;
}

bool ChildProcess::signalsReachChildren() {
  return true;
}

int ChildProcess::waitForExit(std::chrono::milliseconds timeout) {
  if (!started()) {
    return -1;
  }
  if (!waitedFor) {
    int raw = 0;
    if (!endsWithin(pid, timeout) || waitpid(pid, &raw, 0) != pid) {
      return -1;
    }
    waitedFor = true;
    status = statusOf(raw);
  }
  return status;
}

void ChildProcess::kill() {
  if (started() && !waitedFor) {
    ::kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    waitedFor = true;
  }
}

}  // namespace quill_test

#endif

namespace quill_test {

int ChildProcess::finish(ChildOutput& stream, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  int ended = -1;
  if (started() && stream.readToEnd(timeout)) {
    ended = waitForExit(std::max<std::chrono::milliseconds>(timeLeft(deadline), kEndAfterClosing));
  }
  if (ended == -1) {
    kill();
  }
  return ended;
}

}  // namespace quill_test

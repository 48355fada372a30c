#include "runner.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <thread>

#include "scenario.h"
#include "sentrel/control_codes.h"
#include "sentrel/loss_counters.h"
#include "sentrel/package.h"
#include "sentrel/packet_build.h"
#include "sentrel/ring_buffer.h"
#include "sentrel_sdk/event_decoder.h"
#include "sentrel_sdk/event_line.h"
#include "sentrel_sdk/loss_report.h"
#include "sentrel_sdk/ring_reader.h"
#include "sentrel_sdk/white_rule_text.h"
#include "world.h"

namespace sentrel_sim {

namespace {

using ntsim::IoResult;
using ntsim::UserProcess;
using ntsim::World;

constexpr auto kReadWait = std::chrono::milliseconds(200);
constexpr auto kRequestWait = std::chrono::seconds(5);

std::string Status(NTSTATUS status) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(status));
  return text;
}

std::u16string Utf16(const std::string& text) {
  std::u16string out;
  for (size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    uint32_t code = c;
    size_t extra = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
    if (extra) code = c & (0x3F >> extra);
    for (size_t k = 1; k <= extra && i + k < text.size(); ++k) code = (code << 6) | (text[i + k] & 0x3F);
    i += extra + 1;
    if (code >= 0x10000) {
      code -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (code >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (code & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(code));
    }
  }
  return out;
}

// Windows spelling to the kernel's: "C:\x" -> "\??\C:\x", "\\server\share" -> "\??\UNC\server\share";
// a path that already starts with one backslash is the kernel's own.
std::u16string NtPath(const std::string& path) {
  std::u16string text = Utf16(path);
  if (text.rfind(u"\\\\", 0) == 0) return u"\\??\\UNC\\" + text.substr(2);
  if (text.size() >= 2 && text[1] == u':') return u"\\??\\" + text;
  return text;
}

std::string ImageName(const std::string& path) {
  size_t slash = path.find_last_of("\\/");
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool IsNumberField(const Json& value) {
  return value.is_number_unsigned() || (value.is_string() && value.get<std::string>().rfind("0x", 0) == 0);
}

uint32_t PacketTypeOf(const Json& value) {
  if (value.is_string()) {
    std::string text = value.get<std::string>();
    if (text == "event") return SKPT_EVENT;
    if (text == "control") return SKPT_CONTROL;
  }
  return static_cast<uint32_t>(Number(Json{{"v", value}}, "v"));
}

uint32_t EndpointOf(const Json& value) {
  if (value.is_string()) {
    std::string text = value.get<std::string>();
    if (text == "sentrel") return SKT_SENTREL;
    if (text == "consumer") return SKT_CONSUMER;
    if (text == "producers") return SKT_PRODUCERS;
    if (text == "producer") return SKT_PRODUCER;
  }
  return static_cast<uint32_t>(Number(Json{{"v", value}}, "v"));
}

uint32_t EventTypeOf(const Json& value) {
  if (value.is_string() && value.get<std::string>().rfind("ET_", 0) == 0) {
    for (uint32_t type = 0; type < SK_EVENT_TYPE_COUNT; ++type) {
      if (value.get<std::string>() == sk_EventTypeName(type)) return type;
    }
  }
  return static_cast<uint32_t>(Number(Json{{"v", value}}, "v"));
}

class Runner {
 public:
  Runner(std::ostream& output, const RunOptions& options) : out_(output), options_(options) {}

  int Run(const std::vector<Op>& ops) {
    Begin(!ops.empty() && ops.front().name == "machine" ? &ops.front() : nullptr);
    for (const Op& op : ops) Step(op);
    return End();
  }

  // One op at a time, for callers that make the scenario as they go (a replayed recording).
  void Begin(const Op* machineOp) {
    World::Options machine;
    if (machineOp) {
      machine.machine.processors = static_cast<int>(Number(machineOp->fields, "cpus", 4));
      machine.machine.windowsMajor = static_cast<int>(Number(machineOp->fields, "windows", 10));
    }
    machine.usualProcesses = true;
    world_ = std::make_unique<World>(machine);
    AdoptUsualProcesses();
  }
  void Step(const Op& op) {
    if (op.name == "machine") return;
    Perform(op);
    Flush();
  }
  int End() {
    Finish();
    return refused_ == 0 && verdict_.Clean() ? 0 : 1;
  }

 private:
  struct Client {
    UserProcess* process = nullptr;
    HANDLE handle = nullptr;  // overlapped, on \\.\Sentrel
  };
  struct PendingRead {
    uint32_t pid;
    std::shared_ptr<ntsim::PendingIo> io;
    std::shared_ptr<std::vector<uint8_t>> buffer;
  };

  void Emit(const Json& line) {
    if (options_.observe) options_.observe(line);
    if (line.contains("log") && !options_.log) return;  // observed only
    out_ << line.dump() << '\n';
  }
  void Reply(const Op& op, Json reply) {
    Json line = {{"reply", op.name}};
    for (auto& [key, value] : reply.items()) line[key] = value;
    Emit(line);
  }
  void Refuse(const Op& op, const std::string& why) {
    ++refused_;
    Reply(op, {{"line", op.line}, {"refused", why}});
  }

  UserProcess* FindProcess(uint64_t pid) {
    auto it = processes_.find(pid);
    return it == processes_.end() || it->second->Exited() ? nullptr : it->second;
  }
  UserProcess& StartProcess(uint64_t pid, const std::string& image, uint64_t ppid = 4) {
    ntsim::ProcessSpec spec;
    spec.pid = pid;
    spec.parentPid = ppid;
    spec.imagePath = NtPath(image);
    spec.commandLine = Utf16("\"" + image + "\"");
    UserProcess& process = world_->CreateProcess(spec);
    processes_[pid] = &process;
    return process;
  }
  // The process's handle on the device, opened on first use.
  Client* ClientOf(const Op& op, uint64_t pid) {
    UserProcess* process = FindProcess(pid);
    if (!process) {
      Refuse(op, "process " + std::to_string(pid) + " is not running");
      return nullptr;
    }
    Client& client = clients_[pid];
    client.process = process;
    if (!client.handle) {
      NTSTATUS status = process->CreateFile(u"\\\\.\\Sentrel", GENERIC_READ | GENERIC_WRITE, &client.handle, true);
      if (!NT_SUCCESS(status)) {
        client.handle = nullptr;
        Refuse(op, "\\\\.\\Sentrel cannot be opened: " + Status(status));
        return nullptr;
      }
    }
    return &client;
  }
  bool NeedDriver(const Op& op) {
    if (world_->DriverLoaded()) return true;
    Refuse(op, "the driver is not loaded");
    return false;
  }
  IoResult Control(Client& client, ULONG code, const std::vector<uint8_t>& in, std::vector<uint8_t>* output) {
    auto io = client.process->DeviceIoControlOverlapped(client.handle, code, in.empty() ? nullptr : in.data(),
                                                        static_cast<ULONG>(in.size()),
                                                        output->empty() ? nullptr : output->data(),
                                                        static_cast<ULONG>(output->size()));
    if (!io->Wait(kRequestWait)) return IoResult{STATUS_PENDING, 0};
    return io->Result();
  }
  // The driver's loss counters, asked for by the consumer in one request (again, larger, if queues
  // came meanwhile); null if the answer does not decode.
  Json QueryLosses(IoResult* result) {
    std::vector<uint8_t> answer(SK_LOSS_COUNTERS_SIZE(64, 64));
    *result = Control(*consumer_, IOCTL_SK_QUERY_LOSSES, {}, &answer);
    if (result->status == STATUS_BUFFER_OVERFLOW) {
      answer.resize(result->information + SK_LOSS_COUNTERS_SIZE(0, 64));
      *result = Control(*consumer_, IOCTL_SK_QUERY_LOSSES, {}, &answer);
    }
    std::optional<sentrel_sdk::LossReport> report;
    if (result->status == STATUS_SUCCESS) report = sentrel_sdk::DecodeLossReport(answer.data(), result->information);
    return report ? sentrel_sdk::LossReportJson(*report) : Json();
  }
  IoResult Write(Client& client, const std::vector<uint8_t>& bytes) {
    auto io = client.process->WriteFileOverlapped(client.handle, bytes.data(), static_cast<ULONG>(bytes.size()));
    if (!io->Wait(kRequestWait)) return IoResult{STATUS_PENDING, 0};
    return io->Result();
  }
  Json Registration(const Op& op, Client& client, ULONG code) {
    std::vector<uint8_t> answer(sizeof(SENTREL_AUTH_COMMUID));
    IoResult result = Control(client, code, {}, &answer);
    if (result.status != STATUS_SUCCESS) ++refused_;
    Json reply = {{"pid", op.fields["pid"]}, {"status", Status(result.status)}, {"info", result.information}};
    if (result.status == STATUS_SUCCESS) reply["commu_id"] = sentrel_sdk::Hex(answer.data() + 8, 16);
    return reply;
  }

  void Perform(const Op& op) {
    const Json& f = op.fields;
    const std::string& name = op.name;
    if (name == "volume") {
      std::string letter = Text(f, "letter");
      world_->AddVolume(Utf16(Text(f, "device")), letter.empty() ? 0 : static_cast<char16_t>(letter[0]));
      Reply(op, {{"device", f["device"]}});
    } else if (name == "load") {
      NTSTATUS status = world_->LoadDriver();
      Reply(op, {{"status", Status(status)}});
      if (!NT_SUCCESS(status)) ++refused_;
    } else if (name == "unload") {
      if (!NeedDriver(op)) return;
      StopConsumer();
      CloseHandles();
      verdict_ = world_->UnloadDriver();
      Reply(op, {{"clean", verdict_.Clean()}, {"findings", Findings(verdict_)}});
    } else if (name == "shutdown") {
      world_->Shutdown();
      Reply(op, Json::object());
    } else if (name == "reboot" || name == "crash") {
      StopConsumer();
      ForgetProcesses();
      if (name == "reboot") world_->Reboot();
      else world_->Crash();
      AdoptUsualProcesses();
      Reply(op, Json::object());
    } else if (name == "registry") {
      Registry(op);
    } else if (name == "process") {
      Process(op);
    } else if (name == "image") {
      UserProcess* process = FindProcess(Number(f, "pid"));
      if (!process) return Refuse(op, "process " + std::to_string(Number(f, "pid")) + " is not running");
      ntsim::ImageSpec image;
      image.path = NtPath(Text(f, "path"));
      image.base = Number(f, "base");
      image.size = Number(f, "size");
      image.machine = static_cast<USHORT>(Number(f, "machine"));
      image.dll = !f.contains("dll") || f["dll"].get<bool>();
      if (Has(f, "checksum")) image.checksum = static_cast<ULONG>(Number(f, "checksum"));
      image.readableHeader = !f.contains("unreadable") || !f["unreadable"].get<bool>();
      uint64_t base = world_->MapImage(*process, image);
      images_[{Number(f, "pid"), Lower(ImageName(Text(f, "path")))}] = base;
      Reply(op, {{"pid", f["pid"]}, {"base", HexNumber(base)}});
    } else if (name == "thread") {
      Thread(op);
    } else if (name == "driver") {
      UserProcess* loader = nullptr;
      if (Has(f, "by_pid")) {
        loader = FindProcess(Number(f, "by_pid"));
        if (!loader) return Refuse(op, "process " + std::to_string(Number(f, "by_pid")) + " is not running");
      }
      uint64_t base = world_->LoadKernelImage(NtPath(Text(f, "path")), 0, 0x20000, loader);
      Reply(op, {{"path", f["path"]}, {"base", HexNumber(base)}});
    } else if (name == "logon") {
      LogOn(op);
    } else if (name == "logoff") {
      uint64_t logon = Number(f, "logon");
      if (!world_->kernel().se.Find(logon)) return Refuse(op, "logon session " + HexNumber(logon) + " is not logged on");
      world_->LogOff(logon);
      Reply(op, {{"logon", HexNumber(logon)}});
    } else if (name == "exit") {
      uint64_t pid = Number(f, "pid");
      UserProcess* process = FindProcess(pid);
      if (!process) return Refuse(op, "process " + std::to_string(pid) + " is not running");
      if (consumer_ && consumer_->process == process) StopConsumer();
      clients_.erase(pid);
      world_->ExitProcess(*process);
      // What the scenario kept of the process goes with it: a long scenario holds only live ones.
      processes_.erase(pid);
      world_->ForgetProcess(*process);
      for (auto it = images_.lower_bound({pid, std::string()}); it != images_.end() && it->first.first == pid;) {
        it = images_.erase(it);
      }
      Reply(op, {{"pid", pid}});
    } else if (name == "consumer") {
      Consumer(op);
    } else if (name == "mask") {
      if (!consumer_) return Refuse(op, "no consumer is running");
      std::vector<uint8_t> in(8), none;
      sk_StoreLe64(in.data(), 0, Number(f, "mask"));
      IoResult result = Control(*consumer_, IOCTL_SK_EVENT_MASK, in, &none);
      Reply(op, {{"status", Status(result.status)}, {"info", result.information}});
    } else if (name == "losses") {
      if (!consumer_) return Refuse(op, "no consumer is running");
      Drain();
      IoResult result;
      losses_ = QueryLosses(&result);
      Reply(op, {{"status", Status(result.status)}, {"losses", losses_}});
    } else if (name == "producer") {
      uint64_t pid = Number(f, "pid");
      if (!NeedDriver(op)) return;
      if (!FindProcess(pid)) StartProcess(pid, Text(f, "image", "C:\\Windows\\System32\\producer.exe"));
      Client* client = ClientOf(op, pid);
      if (!client) return;
      Reply(op, Registration(op, *client, IOCTL_APP_REGISTER_PRODUCER));
    } else if (name == "send") {
      Send(op);
    } else if (name == "read") {
      if (!NeedDriver(op)) return;
      Client* client = ClientOf(op, Number(f, "pid"));
      if (!client) return;
      PendingRead read{static_cast<uint32_t>(Number(f, "pid")), nullptr, std::make_shared<std::vector<uint8_t>>(65536)};
      read.io = client->process->ReadFileOverlapped(client->handle, read.buffer->data(),
                                                    static_cast<ULONG>(read.buffer->size()));
      if (read.io->Wait(kReadWait)) {
        Reply(op, ReadReply(read));
      } else {
        Reply(op, {{"pid", read.pid}, {"pending", true}});
        reads_.push_back(read);
      }
    } else if (name == "ioctl") {
      if (!NeedDriver(op)) return;
      Client* client = ClientOf(op, Number(f, "pid"));
      if (!client) return;
      std::vector<uint8_t> in, direct, output(Number(f, "out_len"));
      ParseHex(Text(f, "in"), &in);
      // The direct buffer's bytes as the request goes out (a request that reads from it).
      ParseHex(Text(f, "direct"), &direct);
      if (output.size() < direct.size()) output.resize(direct.size());
      std::copy(direct.begin(), direct.end(), output.begin());
      IoResult result = Control(*client, static_cast<ULONG>(Number(f, "code")), in, &output);
      output.resize(result.status == STATUS_SUCCESS && result.information <= output.size() ? result.information : 0);
      Reply(op, {{"pid", f["pid"]}, {"status", Status(result.status)}, {"info", result.information},
                 {"out", sentrel_sdk::Hex(output.data(), output.size())}});
    } else if (name == "write") {
      if (!NeedDriver(op)) return;
      Client* client = ClientOf(op, Number(f, "pid"));
      if (!client) return;
      std::vector<uint8_t> bytes;
      ParseHex(Text(f, "hex"), &bytes);
      IoResult result = Write(*client, bytes);
      Reply(op, {{"pid", f["pid"]}, {"status", Status(result.status)}, {"info", result.information}});
    } else if (name == "drain") {
      size_t read = Drain();
      Reply(op, {{"events", read}});
    } else if (name == "query") {
      Query(op);
    } else if (name == "white_rules") {
      WhiteRules(op);
    } else if (name == "producer_driver") {
      ProducerDriver(op);
    } else if (name == "kernel_event") {
      KernelEvent(op);
    }
  }

  void Registry(const Op& op) {
    const Json& f = op.fields;
    static const std::map<std::string, ULONG> types = {{"REG_SZ", 1},        {"REG_EXPAND_SZ", 2},
                                                        {"REG_BINARY", 3},    {"REG_DWORD", 4},
                                                        {"REG_MULTI_SZ", 7}, {"REG_QWORD", 11}};
    auto type = types.find(Text(f, "type"));
    if (type == types.end()) return Refuse(op, "type must be one of REG_SZ, REG_EXPAND_SZ, REG_BINARY, REG_DWORD, REG_MULTI_SZ, REG_QWORD");
    std::vector<uint8_t> data;
    const Json& value = f["data"];
    if (type->second == 4 || type->second == 11) {
      if (!IsNumberField(value)) return Refuse(op, "data must be a number for " + Text(f, "type"));
      data.resize(8);
      sk_StoreLe64(data.data(), 0, Number(f, "data"));
      data.resize(type->second == 4 ? 4 : 8);
    } else if (type->second == 3) {
      if (!value.is_string() || !ParseHex(value.get<std::string>(), &data)) return Refuse(op, "data must be hex");
    } else {
      std::u16string text = Utf16(value.is_string() ? value.get<std::string>() : value.dump());
      text.push_back(0);
      if (type->second == 7) text.push_back(0);
      data.assign(reinterpret_cast<const uint8_t*>(text.data()),
                  reinterpret_cast<const uint8_t*>(text.data()) + text.size() * 2);
    }
    NTSTATUS status = world_->SetRegistryValue(Utf16(Text(f, "key")), Utf16(Text(f, "value")), type->second,
                                               data.data(), static_cast<ULONG>(data.size()));
    Reply(op, {{"status", Status(status)}});
  }

  void Process(const Op& op) {
    const Json& f = op.fields;
    uint64_t pid = Number(f, "pid");
    uint64_t ppid = Number(f, "ppid", 4);
    if (FindProcess(pid)) return Refuse(op, "process " + std::to_string(pid) + " is running already");
    if (pid && IdInUse(pid)) return Refuse(op, "id " + std::to_string(pid) + " is in use");
    if (ppid != 4 && !FindProcess(ppid)) return Refuse(op, "parent " + std::to_string(ppid) + " is not running");
    uint64_t creator = Number(f, "creator", ppid);
    if (creator != 4 && !FindProcess(creator)) {
      return Refuse(op, "creator " + std::to_string(creator) + " is not running");
    }
    ntsim::ProcessSpec spec;
    // Who runs it: the creator's token, unless `logon` names a session (logged on here when the op
    // gives its user and SID) or `integrity` a level.
    if (Has(f, "user") || Has(f, "sid")) {
      if (!Has(f, "logon")) return Refuse(op, "user and sid belong to a logon session: give its logon id");
      if (!world_->kernel().se.Find(Number(f, "logon"))) {
        if (!Has(f, "user") || !Has(f, "sid")) return Refuse(op, "a new logon session needs both user and sid");
        std::string why = LogOnSession(Number(f, "logon"), Text(f, "user"), Text(f, "sid"), Number(f, "session", 1));
        if (!why.empty()) return Refuse(op, why);
      }
    }
    if (Has(f, "logon")) {
      std::optional<ntsim::LogonSession> session = world_->kernel().se.Find(Number(f, "logon"));
      if (!session) return Refuse(op, "logon session " + HexNumber(Number(f, "logon")) + " is not logged on");
      if (Has(f, "sid") && session->sid != Text(f, "sid")) {
        return Refuse(op, "logon session " + HexNumber(session->logonId) + " belongs to " + session->sid);
      }
      spec.logonId = session->logonId;
    }
    if (Has(f, "integrity")) {
      std::optional<ULONG> rid = IntegrityRid(Text(f, "integrity"));
      if (!rid) return Refuse(op, "integrity is untrusted, low, medium, medium_plus, high, system, protected or a 0x RID");
      spec.integrityRid = *rid;
    }
    for (const char* field : {"image", "cmdline", "cwd"}) {
      if (Has(f, field) && Utf16(Text(f, field)).size() > ntsim::kMaxProcessParameterChars) {
        return Refuse(op, std::string(field) + " is longer than Windows allows (32,766 characters)");
      }
    }
    spec.pid = pid;
    spec.parentPid = ppid;
    spec.creatorPid = creator;
    spec.imagePath = NtPath(Text(f, "image"));
    spec.commandLine = Utf16(Text(f, "cmdline", "\"" + Text(f, "image") + "\""));
    if (Has(f, "cwd")) spec.currentDirectory = Utf16(Text(f, "cwd"));
    spec.sessionId = static_cast<ULONG>(Number(f, "session", 1));
    spec.wow64 = f.contains("wow64") && f["wow64"].get<bool>();
    UserProcess& process = world_->CreateProcess(spec);
    processes_[pid] = &process;
    Json reply = {{"pid", pid}, {"tid", process.InitialThreadId()}, {"status", Status(process.CreationStatus())}};
    Reply(op, reply);
  }

  // Processes and threads share one id space.
  bool IdInUse(uint64_t id) { return world_->kernel().ps.FindProcess(id) || world_->kernel().ps.FindThread(id); }

  // "untrusted" ... "protected", or the label's RID as "0x2100".
  static std::optional<ULONG> IntegrityRid(const std::string& text) {
    static const std::map<std::string, ULONG> names = {
        {"untrusted", 0x0000}, {"low", 0x1000},    {"medium", 0x2000},   {"medium_plus", 0x2100},
        {"high", 0x3000},      {"system", 0x4000}, {"protected", 0x5000}};
    auto it = names.find(text);
    if (it != names.end()) return it->second;
    if (text.size() > 2 && text.size() <= 10 && text.compare(0, 2, "0x") == 0 &&
        text.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string::npos) {
      return static_cast<ULONG>(std::stoul(text.substr(2), nullptr, 16));
    }
    return std::nullopt;
  }

  // A user logs on: "DOMAIN\name" or a bare name. Returns why not, or "".
  std::string LogOnSession(uint64_t logon, const std::string& user, const std::string& sid, uint64_t session) {
    std::vector<uint8_t> binary;
    if (!logon) return "logon id 0 is no logon session";
    if (!ntsim::SidFromText(sid, &binary)) return "sid " + sid + " is no SID";
    if (user.empty()) return "user is empty";
    ntsim::LogonSpec spec;
    spec.logonId = logon;
    size_t slash = user.find('\\');
    spec.domain = slash == std::string::npos ? std::u16string() : Utf16(user.substr(0, slash));
    spec.user = Utf16(slash == std::string::npos ? user : user.substr(slash + 1));
    spec.sid = sid;
    spec.session = static_cast<ULONG>(session);
    world_->LogOn(spec);
    return std::string();
  }

  void LogOn(const Op& op) {
    const Json& f = op.fields;
    uint64_t logon = Number(f, "logon");
    std::string why = LogOnSession(logon, Text(f, "user"), Text(f, "sid"), Number(f, "session", 1));
    if (!why.empty()) return Refuse(op, why);
    Reply(op, {{"logon", HexNumber(logon)}, {"user", f["user"]}, {"sid", f["sid"]}});
  }

  void Thread(const Op& op) {
    const Json& f = op.fields;
    UserProcess* process = FindProcess(Number(f, "pid"));
    if (!process) return Refuse(op, "process " + std::to_string(Number(f, "pid")) + " is not running");
    UserProcess* creator = process;
    if (Has(f, "by_pid")) {
      creator = FindProcess(Number(f, "by_pid"));
      if (!creator) return Refuse(op, "process " + std::to_string(Number(f, "by_pid")) + " is not running");
    }
    uint64_t start = Number(f, "start");
    if (Has(f, "start_module")) {
      // Windows' file names match without regard to case.
      auto image = images_.find({Number(f, "pid"), Lower(ImageName(Text(f, "start_module")))});
      if (image == images_.end()) return Refuse(op, "no image " + Text(f, "start_module") + " in that process");
      start = image->second + Number(f, "start_offset");
    }
    uint64_t wanted = Number(f, "tid"), byTid = Number(f, "by_tid");
    if (wanted && IdInUse(wanted)) return Refuse(op, "id " + std::to_string(wanted) + " is in use");
    if (byTid) {
      _KTHREAD* creating = world_->kernel().ps.FindThread(byTid);
      if (!creating || creating->process != creator->Process()) {
        return Refuse(op, "thread " + std::to_string(byTid) + " is no running thread of process " +
                              std::to_string(creator->Id()));
      }
    }
    uint64_t tid = world_->StartThread(*process, creator, start, wanted, byTid);
    if (f.contains("exit") && f["exit"].get<bool>()) world_->ExitThread(tid);
    Reply(op, {{"pid", f["pid"]}, {"tid", tid}, {"start", HexNumber(start)}});
  }

  // The consumer asks for the three packages of a process, into an answer buffer of `room` bytes
  // (by default the longest answer there can be). A refused answer says whether the driver wrote
  // into the buffer anyway.
  void Query(const Op& op) {
    constexpr uint8_t kUnwritten = 0xA5;
    const Json& f = op.fields;
    if (!NeedDriver(op)) return;
    if (!consumer_) return Refuse(op, "no consumer is running");
    uint64_t pid = Number(f, "pid");
    uint64_t room = Number(f, "room", SK_PACK_COMMON_INFO_MAX);
    if (pid > 0xFFFFFFFF) return Refuse(op, "pid must fit 32 bits");
    if (room > 0x100000) return Refuse(op, "room is at most 1 MiB");
    std::vector<uint8_t> in(4), answer(room, kUnwritten);
    sk_StoreLe32(in.data(), 0, static_cast<uint32_t>(pid));
    IoResult result = Control(*consumer_, IOCTL_SK_QUERY_PACKCOMINFO, in, &answer);
    Json reply = {{"pid", pid}, {"status", Status(result.status)}, {"info", result.information}};
    if (result.status == STATUS_SUCCESS && result.information <= answer.size()) {
      Json description = Json::object();
      std::string problem;
      if (sentrel_sdk::DecodeProcessDescription(answer.data(), result.information, &description, &problem)) {
        reply["length"] = result.information;
        for (auto& [key, value] : description.items()) reply[key] = value;
      } else {
        reply["malformed"] = problem;
      }
    } else {
      reply["written"] = std::any_of(answer.begin(), answer.end(), [](uint8_t b) { return b != kUnwritten; });
    }
    Reply(op, reply);
  }

  // The consumer uploads white rules, built into the device's records by the consumer library, or
  // with "delete" removes them all (an empty request).
  void WhiteRules(const Op& op) {
    const Json& f = op.fields;
    if (!NeedDriver(op)) return;
    if (!consumer_) return Refuse(op, "no consumer is running");
    std::vector<uint8_t> records;
    size_t count = 0;
    if (Has(f, "rules")) {
      std::string text;
      for (const Json& rule : f["rules"]) {
        const Json& type = rule["type"];
        text += (type.is_string() ? type.get<std::string>() : std::to_string(type.get<uint64_t>())) + " " +
                rule["pattern"].get<std::string>() + "\n";
      }
      sentrel_sdk::WhiteRuleRecords built;
      std::string problem;
      if (!sentrel_sdk::ParseWhiteRules(text, &built, &problem)) return Refuse(op, problem);
      records = built.bytes;
      count = built.count;
    }
    // The driver reads the records from the direct buffer and their length from the input length.
    std::vector<uint8_t> direct = records;
    IoResult result = Control(*consumer_, IOCTL_SK_ADD_WHITE_RULE, records, &direct);
    Reply(op, {{"rules", count}, {"status", Status(result.status)}, {"info", result.information}});
  }

  // Quillet, the producer driver: loaded (it registers when Sentrel tells it that it is online, or
  // at once when Sentrel runs already) or unloaded.
  void ProducerDriver(const Op& op) {
    std::string action = Text(op.fields, "action");
    if (action == "load") {
      NTSTATUS status = world_->LoadProducerDriver();
      if (!NT_SUCCESS(status)) return Refuse(op, "the producer driver did not load: " + Status(status));
      ntsim::Quillet& quillet = *world_->ProducerDriver();
      NTSTATUS registered = STATUS_SUCCESS;
      if (world_->DriverLoaded() && !quillet.HasTable()) registered = world_->AsSystem([&] { return quillet.Register(); });
      Reply(op, {{"action", action}, {"registered", Status(registered)}, {"table", quillet.HasTable()}});
    } else if (action == "unload") {
      ntsim::Quillet* quillet = world_->ProducerDriver();
      if (!quillet || !quillet->Loaded()) return Refuse(op, "the producer driver is not loaded");
      world_->UnloadProducerDriver();
      Reply(op, {{"action", action}, {"online_notices", quillet->OnlineNotices()},
                 {"offline_calls", quillet->OfflineCalls()}});
    } else {
      Refuse(op, "action is load or unload");
    }
  }

  // The producer driver sends an event on behalf of a thread of the process: the packages it
  // borrows, and with `stack` the thread's caller stack (frames as "module+0xoffset" of an image the
  // scenario mapped into the process, or raw addresses), then `data`.
  void KernelEvent(const Op& op) {
    const Json& f = op.fields;
    ntsim::Quillet* quillet = world_->ProducerDriver();
    if (!quillet || !quillet->HasTable()) return Refuse(op, "the producer driver has no interface table");
    uint64_t pid = Number(f, "pid");
    UserProcess* process = FindProcess(pid);
    if (!process) return Refuse(op, "process " + std::to_string(pid) + " is not running");
    std::vector<uint64_t> frames;
    if (Has(f, "stack")) {
      for (const Json& frame : f["stack"]) {
        if (frame.is_string() && frame.get<std::string>().find('+') != std::string::npos) {
          std::string text = frame.get<std::string>();
          std::string module = text.substr(0, text.find('+'));
          auto image = images_.find({pid, Lower(ImageName(module))});
          if (image == images_.end()) return Refuse(op, "no image " + module + " in process " + std::to_string(pid));
          frames.push_back(image->second + Number(Json{{"v", text.substr(text.find('+') + 1)}}, "v"));
        } else if (IsNumberField(frame)) {
          frames.push_back(Number(Json{{"v", frame}}, "v"));
        } else {
          return Refuse(op, "a frame is \"module+0xoffset\" or an address");
        }
      }
    }
    std::vector<uint8_t> data;
    ParseHex(Text(f, "data"), &data);
    world_->SetUserStack(*process, frames);
    NTSTATUS status = process->InProcess(
        [&] { return quillet->SendProcessEvent(EventTypeOf(f["event_type"]), data, Has(f, "stack")); });
    Reply(op, {{"pid", pid}, {"status", Status(status)}});
  }

  void Consumer(const Op& op) {
    const Json& f = op.fields;
    uint64_t pid = Number(f, "pid");
    if (!NeedDriver(op)) return;
    if (consumer_) return Refuse(op, "a consumer is running already");
    if (!FindProcess(pid)) StartProcess(pid, Text(f, "image", "C:\\Program Files\\Sentrel\\agent.exe"));
    Client* client = ClientOf(op, pid);
    if (!client) return;
    Json reply = Registration(op, *client, IOCTL_APP_REGISTER_CONSUMER);
    if (reply["status"] != Status(STATUS_SUCCESS)) return Reply(op, reply);
    std::vector<uint8_t> info(RING_BUF_MAP_INFO_SIZE(64));
    IoResult mapped = Control(*client, IOCTL_SK_MAP_RINGBUF, {}, &info);
    reply["map_status"] = Status(mapped.status);
    if (mapped.status == STATUS_SUCCESS) {
      reader_ = sentrel_sdk::RingReader::FromMapInfo(info.data(), mapped.information);
      if (reader_) reply["buffers"] = reader_->BufferCount();
    } else {
      ++refused_;
    }
    consumer_ = client;
    Reply(op, reply);
  }

  void Send(const Op& op) {
    const Json& f = op.fields;
    const Json& packet = f["packet"];
    if (!NeedDriver(op)) return;
    Client* client = ClientOf(op, Number(f, "pid"));
    if (!client) return;
    uint32_t type = PacketTypeOf(packet["type"]);
    std::vector<uint8_t> body;
    ParseHex(Text(packet, "body"), &body);
    // An event packet's body starts with its length and its event type, as the driver's own do.
    if (Has(packet, "event_type")) {
      std::vector<uint8_t> head(8);
      sk_StoreLe32(head.data(), 0, static_cast<uint32_t>(body.size() + 8));
      sk_StoreLe32(head.data(), 4, EventTypeOf(packet["event_type"]));
      body.insert(body.begin(), head.begin(), head.end());
    }
    std::vector<uint8_t> bytes(SK_PACKET_HEADER_SIZE + body.size());
    sk_PacketInit(bytes.data(), type, SKT_PRODUCER, static_cast<uint32_t>(Number(f, "pid")), EndpointOf(packet["dst"]),
                  static_cast<uint32_t>(Number(packet, "dst_pid")), static_cast<uint32_t>(body.size()));
    std::copy(body.begin(), body.end(), bytes.begin() + SK_PACKET_HEADER_SIZE);
    IoResult result = Write(*client, bytes);
    // An event for the consumer that the ring buffers did not take (full, or stopped).
    if (type == SKPT_EVENT && EndpointOf(packet["dst"]) == SKT_CONSUMER && result.status != STATUS_SUCCESS) {
      ++ringRefused_;
    }
    Reply(op, {{"pid", f["pid"]}, {"status", Status(result.status)}, {"info", result.information}});
  }

  Json ReadReply(const PendingRead& read) {
    IoResult result = read.io->Result();
    Json reply = {{"pid", read.pid}, {"status", Status(result.status)}, {"info", result.information}};
    if (result.status == STATUS_SUCCESS && result.information >= SK_PACKET_HEADER_SIZE) {
      const uint8_t* bytes = read.buffer->data();
      reply["packet"] = {{"type", sk_LoadLe32(bytes, SK_OFFSETOF(SK_PACKET, PacketType))},
                         {"dst", sk_LoadLe32(bytes, SK_OFFSETOF(SK_PACKET, DstType))},
                         {"src_pid", sk_LoadLe32(bytes, SK_OFFSETOF(SK_PACKET, SrcPid))},
                         {"body", sentrel_sdk::Hex(bytes + SK_PACKET_HEADER_SIZE, result.information - SK_PACKET_HEADER_SIZE)}};
    }
    return reply;
  }

  // Replies for reads that were waiting and have ended since.
  void LateReads() {
    for (auto it = reads_.begin(); it != reads_.end();) {
      if (!it->io->Completed()) {
        ++it;
        continue;
      }
      Json line = {{"reply", "read"}};
      Json reply = ReadReply(*it);
      for (auto& [key, value] : reply.items()) line[key] = value;
      line["late"] = true;
      Emit(line);
      it = reads_.erase(it);
    }
  }

  size_t Drain() {
    if (!reader_) return 0;
    size_t total = 0;
    for (;;) {
      size_t read = reader_->DrainAll([&](const sentrel_sdk::RingRecord& record) {
        Json line = sentrel_sdk::EventLine(record);
        std::string type = sentrel_sdk::EventLineKind(line);
        events_[type] = events_.contains(type) ? events_[type].get<uint64_t>() + 1 : 1;
        Emit(line);
      });
      total += read;
      if (read == 0) return total;
    }
  }

  // The driver's own threads (a logon table's add thread, say) finish what the op set off before
  // its output is read, so that the output does not depend on how threads are scheduled. Bounded:
  // a thread that never ends shows in the verdict, not as a hang.
  void Settle() {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (world_->kernel().threads.Running() != 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  // After every op: the consumer drains what was written, waiting reads that ended answer, and
  // the driver's new log lines follow.
  void Flush() {
    Settle();
    if (options_.log || options_.observeLog) {
      for (const std::string& line : world_->debug().TakeLines()) Emit({{"log", line}});
    }
    LateReads();
    Drain();
  }

  void StopConsumer() {
    Drain();
    if (consumer_ && world_->DriverLoaded() && !consumer_->process->Exited()) {
      IoResult result;
      losses_ = QueryLosses(&result);
    }
    if (reader_) {
      const sentrel_sdk::RingReaderCounts& counts = reader_->Counts();
      malformed_ += counts.malformed;
    }
    reader_.reset();
    consumer_ = nullptr;
  }

  void CloseHandles() {
    for (PendingRead& read : reads_) {
      Client& client = clients_[read.pid];
      if (client.process && !client.process->Exited()) client.process->CancelIoEx(client.handle);
    }
    LateReads();
    for (auto& [pid, client] : clients_) {
      if (client.handle && !client.process->Exited()) client.process->CloseHandle(client.handle);
    }
    clients_.clear();
  }

  // wininit.exe and services.exe run from boot on: the scenario may name them as parents.
  void AdoptUsualProcesses() {
    for (uint64_t pid : {World::kWininitPid, World::kServicesPid}) {
      if (UserProcess* process = world_->FindUserProcess(pid)) processes_[pid] = process;
    }
  }

  void ForgetProcesses() {
    reads_.clear();
    clients_.clear();
    processes_.clear();
    images_.clear();
  }

  void NotSimulated(const Json& f, std::initializer_list<const char*> fields, Json* reply) {
    Json names = Json::array();
    for (const char* field : fields) {
      if (f.contains(field)) names.push_back(field);
    }
    if (!names.empty()) (*reply)["not_simulated"] = names;
  }

  static std::string HexNumber(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
  }

  static Json Findings(const ntsim::Verdict& verdict) {
    Json findings = Json::array();
    for (const ntsim::Finding& finding : verdict.findings) {
      findings.push_back({{"what", finding.call}, {"detail", finding.what}});
    }
    return findings;
  }

  // The machine winds down: every process the scenario started ends (the consumer last), then the
  // driver unloads and the verifier gives its verdict.
  void Finish() {
    if (world_->DriverLoaded()) {
      StopConsumer();
      CloseHandles();
      for (auto& [pid, process] : processes_) {
        if (!process->Exited()) world_->ExitProcess(*process);
      }
      verdict_ = world_->UnloadDriver();
    } else if (!verdict_.Clean() || world_->LastVerdict().findings.size()) {
      verdict_ = world_->LastVerdict();
    }
    Flush();
    Json events = Json::object();
    for (auto& [type, count] : events_.items()) events[type] = count;
    Emit({{"summary",
           {{"events", events},
            {"ring", {{"refused", ringRefused_}, {"malformed", malformed_}}},
            {"losses", losses_},
            {"refused_ops", refused_},
            {"verdict", {{"clean", verdict_.Clean()}, {"findings", Findings(verdict_)}}}}}});
  }

  std::ostream& out_;
  RunOptions options_;
  std::unique_ptr<World> world_;
  std::map<uint64_t, UserProcess*> processes_;
  std::map<uint64_t, Client> clients_;
  std::map<std::pair<uint64_t, std::string>, uint64_t> images_;
  std::vector<PendingRead> reads_;
  Client* consumer_ = nullptr;
  std::optional<sentrel_sdk::RingReader> reader_;
  Json events_ = Json::object();
  uint64_t ringRefused_ = 0;
  uint64_t malformed_ = 0;
  Json losses_;  // the last loss counters the consumer read, null if it never did
  int refused_ = 0;
  ntsim::Verdict verdict_;
};

}  // namespace

struct Session::Impl {
  Runner runner;
  Impl(std::ostream& output, const RunOptions& options) : runner(output, options) {}
};

Session::Session(std::ostream& output, const RunOptions& options, const Op* machineOp)
    : impl_(std::make_unique<Impl>(output, options)) {
  impl_->runner.Begin(machineOp);
}
Session::~Session() = default;
void Session::Perform(const Op& op) { impl_->runner.Step(op); }
int Session::Finish() { return impl_->runner.End(); }

int RunScenario(std::istream& scenario, std::ostream& output, const RunOptions& options) {
  std::vector<Op> ops;
  ScenarioError error;
  if (!ParseScenario(scenario, &ops, &error)) {
    Json line = {{"error", {{"line", error.line}, {"field", error.field}, {"message", error.message}}}};
    output << line.dump() << '\n';
    return 2;
  }
  Runner runner(output, options);
  return runner.Run(ops);
}

}  // namespace sentrel_sim

// nv, efs, efs-path and rfnv: each reads, writes and deletes items of one kind, one at a time; and dumps, restores and
// compares many, as a file.
// efs-sync has the modem write its EFS to storage; raw sends a pass-through command.
#include <unistd.h>

#include <mutex>
#include <nlohmann/json.hpp>

#include "command_line.h"
#include "items.h"
#include "modem_link.h"
#include "qmi_client.h"

namespace pelmar::cli {

namespace {

void add_parts(const Command& command, const Kind& kind, Address& address) {
  if (kind.max_qualifier > 0) {
    command.add_number("--qualifier", address.qualifier, "the qualifier", {}, kind.max_qualifier);
  }
  if (kind.max_index > 0) command.add_number("--index", address.index, "the index", {}, kind.max_index);
}

void add_address(const Command& command, const Kind& kind, Address& address) {
  if (kind.by_path) {
    const auto take = [&address](const std::string& word) {
      address.path = word;
      return path_problem(word);
    };
    command.add_parsed("path", "the file's path", take, {.type = "PATH", .is_required = true});
  } else {
    command.add_number("item", address.item, "the item's number", {.is_required = true});
  }
  add_parts(command, kind, address);
}

constexpr Advice kNothingThere = {MODEM_API_ERR_GENERIC,
                                  "Nothing is stored there: write it first, or check number, qualifier and index.",
                                  QMI_ERR_NO_ENTRY_V01};
constexpr Advice kNoFile = {MODEM_API_ERR_GENERIC, kNothingThere.text, QMI_ERR_SIM_FILE_NOT_FOUND_V01};
constexpr Advice kBadNumber = {MODEM_API_ERR_INVALID_PARAM,
                               "The modem takes no such number, qualifier or index: check them.",
                               QMI_ERR_INVALID_ARG_V01};
constexpr Advice kBadPath = {
    MODEM_API_ERR_INVALID_PARAM,
    "The modem takes no such path: check it; it may have no '.' or '..' part and no '/' at its end.",
    QMI_ERR_INVALID_ARG_V01};
constexpr Advice kTooMuchData = {MODEM_API_ERR_INVALID_PARAM, "An item has at most 256 bytes: write less."};
static_assert(MODEM_API_MAX_ITEM_BYTES == 256);
constexpr Advice kNoRoom = {MODEM_API_ERR_GENERIC, "Delete what is not needed.", QMI_ERR_DEVICE_STORAGE_FULL_V01};

struct ItemValues {
  Address address;
  DataInput input;
  DataOutput output;
};

modem_api_result read(const Kind& kind, int32_t client, const Address& address, Bytes& bytes) {
  bytes.resize(MODEM_API_MAX_ITEM_BYTES);
  auto length = static_cast<uint32_t>(bytes.size());
  const modem_api_result code = kind.read(client, address, bytes.data(), &length);
  bytes.resize(length);
  return code;
}

modem_api_result write(const Kind& kind, int32_t client, const Address& address, const Bytes& bytes) {
  return kind.write(client, address, bytes.data(), static_cast<uint32_t>(bytes.size()));
}

void check_item(modem_api_result code, const Kind& kind, const std::string& step) {
  check(code, step, {kNothingThere, kNoFile, kind.by_path ? kBadPath : kBadNumber, kTooMuchData, kNoRoom});
}

void read_item(const Context& context, const Kind& kind, const ItemValues& values) {
  const std::string title = title_of(kind, values.address);
  Bytes bytes;
  check_item(read(kind, context.session.open(MODEM_API_CLIENT_VS), values.address, bytes), kind, "reading " + title);
  values.output.report(context.output, bytes, json_of(kind, values.address), title);
}

void write_item(const Context& context, const Kind& kind, const ItemValues& values) {
  const std::string title = title_of(kind, values.address);
  const Bytes bytes = values.input.read();
  check_item(write(kind, context.session.open(MODEM_API_CLIENT_VS), values.address, bytes), kind, "writing " + title);
  Json document = json_of(kind, values.address);
  document["written_bytes"] = bytes.size();
  context.output.print(document, title + ": " + count_of(bytes.size(), "byte") + " written");
}

void delete_item(const Context& context, const Kind& kind, const ItemValues& values) {
  const std::string title = title_of(kind, values.address);
  check_item(kind.remove(context.session.open(MODEM_API_CLIENT_VS), values.address), kind, "deleting " + title);
  Json document = json_of(kind, values.address);
  document["deleted"] = true;
  context.output.print(document, title + ": deleted");
}

// --- dump, restore, diff ---

// The state of an item after its exchange, and the index of its counter.
enum State : size_t { kDone, kDifferent, kAbsent, kRefused, kLost, kStates };
constexpr const char* kStateWords[kStates] = {"", "different", "absent", "refused", "lost"};

struct Result {
  State state = kLost;
  Bytes data;  // that was read
  std::optional<Failure> failure;
};

// Returns the result of the exchange that ended last on this thread.
Result result_of(modem_api_result code, const Bytes& data = {}) {
  const auto exchange = take_last_exchange();
  const bool is_response = exchange && exchange->code != QMI_SERVICE_ERR && exchange->code != QMI_TIMEOUT_ERR;
  if (code == MODEM_API_SUCCESS && is_response) return {kDone, data, {}};
  const uint32_t error = is_response ? exchange->error : 0;
  const bool is_absent = error == QMI_ERR_NO_ENTRY_V01 || error == QMI_ERR_SIM_FILE_NOT_FOUND_V01;
  const auto failure = Failure::of_result("", code == MODEM_API_SUCCESS ? MODEM_API_ERR_GENERIC : code, {}, exchange);
  return {is_absent ? kAbsent : failure.is_loss() ? kLost : kRefused, {}, failure};
}

Result read_result(const Kind& kind, int32_t client, const Address& address) {
  Bytes bytes;
  const modem_api_result code = read(kind, client, address, bytes);
  return result_of(code, bytes);
}

void put_result(Json& object, const Result& result) {
  if (result.failure) return object.update(result.failure->causes());
  put_bytes(object, result.data);
}

struct Job {
  std::string step;
  std::string done;  // the word for items in state kDone, such as "written"
  std::vector<FileItem> items = {};
  std::function<Result(int32_t client, const FileItem& item)> exchange = nullptr;
  // Returns the text for a result, empty if it is not printed, and adds members to its document.
  std::function<std::string(const FileItem& item, const Result& result, Json& document)> describe = nullptr;
  const char* problem = nullptr;  // the words before the number of items that are not done
  bool accepts_absence = false;   // absent items are no such problem
  std::string heading = "";       // printed once the modem responds, except with --json
  const char* mark = "";          // the first characters of the summary
};

// One exchange with the modem for each item, on a thread of its own, until the modem is lost or the user wishes to end.
// Each result is printed when it comes, and a summary at the end, also where an exchange has not ended.
class Pass {
 public:
  Pass(const Context& context, const Kind& kind, Job job)
      : context_(context), kind_(kind), job_(std::move(job)), thread_(context) {}

  void run() {
    thread_.run([this] {
      const int32_t client = context_.session.open(MODEM_API_CLIENT_VS);
      if (!job_.heading.empty() && !context_.output.is_json()) context_.output.print(Json(), job_.heading);
      thread_.start([this, client] { exchange_all(client); });
      while (!thread_.wait(Clock::now() + kProgressPeriod) && !context_.inbox.is_interrupted()) {
        const std::lock_guard lock(mutex_);
        if (is_terminal_) fprintf(stderr, "\r%s: %zu of %zu", kind_.command, tried_, job_.items.size());
      }
      const std::lock_guard lock(mutex_);
      is_over_ = true;
      if (is_pending_) record({kLost, {}, Failure("", "no response came before the end")});
      finish();
    });
  }

 private:
  static constexpr std::chrono::milliseconds kProgressPeriod{200};

  void exchange_all(int32_t client) {
    for (const FileItem& item : job_.items) {
      {
        const std::lock_guard lock(mutex_);
        if (is_over_ || failure_ || context_.inbox.is_interrupted()) return;
        ++tried_;
        is_pending_ = true;
      }
      const Result result = job_.exchange(client, item);
      const std::lock_guard lock(mutex_);
      if (is_over_) return;
      record(result);
    }
  }

  // Records the result of the item that was tried last.
  void record(const Result& result) {
    is_pending_ = false;
    ++counts_[result.state];
    const FileItem& item = job_.items[tried_ - 1];
    Json document = json_of(kind_, item.address);
    const std::string text = job_.describe(item, result, document);
    try {
      if (!text.empty()) print(document, text);
      if (result.state == kLost) failure_ = Failure(job_.step, result.failure->reason());
    } catch (const Failure& failure) {
      failure_ = failure;
    }
  }

  void print(const Json& document, const std::string& text) const {
    if (is_terminal_) fputs("\r\033[K", stderr);
    context_.output.print(document, text);
  }

  void finish() const {
    if (failure_ && counts_[kLost] == 0) throw *failure_;  // nothing can be printed
    const size_t left = job_.items.size() - tried_;
    const std::string all = count_of(job_.items.size(), kind_.title);
    Json summary = {{"type", "summary"}, {"items", job_.items.size()}, {"not_tried", left}};
    std::string text = job_.mark + all + ": ";
    for (size_t state = 0; state < kStates; ++state) {
      const std::string word = state == kDone ? job_.done : kStateWords[state];
      summary[word] = counts_[state];
      if (state == kDone || counts_[state] > 0) text += std::to_string(counts_[state]) + ' ' + word + ", ";
    }
    text += std::to_string(left) + " not tried";
    if (left > 0) {
      text += " (from " + title_of(kind_, job_.items[tried_].address) + " on)";
      summary["first_not_tried"] = json_of(kind_, job_.items[tried_].address);
    }
    print(summary, text);
    if (context_.inbox.is_interrupted()) return;
    if (failure_) throw *failure_;
    const size_t failed = tried_ - counts_[kDone] - (job_.accepts_absence ? counts_[kAbsent] : 0);
    if (failed > 0) throw Failure("", job_.problem + std::to_string(failed) + " of " + all);
  }

  const Context& context_;
  const Kind& kind_;
  const Job job_;
  const bool is_terminal_ = isatty(STDERR_FILENO) != 0;
  std::mutex mutex_;
  size_t tried_ = 0;
  bool is_pending_ = false;  // the last tried item has no result yet
  size_t counts_[kStates] = {};
  std::optional<Failure> failure_;  // that ended the exchanges
  bool is_over_ = false;
  ModemThread thread_;
};

struct ManyValues {
  std::vector<std::string> words;
  Address base;
  std::string file;
  bool is_dry = false;
  Confirmation confirmation;
};

void dump(const Context& context, const Kind& kind, const ManyValues& values) {
  Job job = {.step = std::string("dumping ") + kind.summary,
             .done = "found",
             .problem = "the modem refused ",
             .accepts_absence = true,
             .mark = "# "};
  for (Address& address : parse_addresses(kind, values.words, values.base))
    job.items.push_back({.address = std::move(address)});
  job.exchange = [&](int32_t client, const FileItem& item) { return read_result(kind, client, item.address); };
  job.describe = [&](const FileItem& item, const Result& result, Json& document) -> std::string {
    if (result.state == kAbsent) return "";
    put_result(document, result);
    if (result.failure) return "# " + title_of(kind, item.address) + ": " + result.failure->reason();
    return line_of(kind, item.address, result.data);
  };
  job.heading =
      std::string("# ") + kind.title + "s of " + context.session.modem().address + ", " + utc_text(WallClock::now());
  Pass(context, kind, std::move(job)).run();
}

void restore(const Context& context, const Kind& kind, const ManyValues& values) {
  Job job = {.step = "restoring '" + values.file + "'",
             .done = "written",
             .items = read_items(kind, values.file),
             .problem = "could not write "};
  const std::string all = count_of(job.items.size(), kind.title);
  if (values.is_dry) {
    const Json summary = {{"type", "summary"}, {"items", job.items.size()}, {"not_tried", job.items.size()}};
    return context.output.print(summary, "'" + values.file + "' has " + all + " and no wrong line");
  }
  values.confirmation.require(all + " of " + context.session.modem().address + " may be overwritten.");
  job.exchange = [&](int32_t client, const FileItem& item) {
    return result_of(write(kind, client, item.address, item.data));
  };
  job.describe = [&](const FileItem& item, const Result& result, Json& document) -> std::string {
    if (result.state == kDone) return "";
    document["file_line"] = item.line;
    document["may_be_written"] = result.state == kLost;
    put_result(document, result);
    return "line " + std::to_string(item.line) + ", " + title_of(kind, item.address) + ": " + result.failure->reason() +
           (result.state == kLost ? "; it may be written" : "");
  };
  Pass(context, kind, std::move(job)).run();
}

void diff(const Context& context, const Kind& kind, const ManyValues& values) {
  Job job = {.step = "comparing '" + values.file + "'",
             .done = "same",
             .items = read_items(kind, values.file),
             .problem = "the file and the modem differ in ",
             .mark = "# "};
  job.exchange = [&](int32_t client, const FileItem& item) {
    Result result = read_result(kind, client, item.address);
    if (result.state == kDone && result.data != item.data) result.state = kDifferent;
    return result;
  };
  job.describe = [&](const FileItem& item, const Result& result, Json& document) -> std::string {
    if (result.state == kDone) return "";
    put_bytes(document["file"], item.data);
    document["modem"] = Json();
    std::string line = "-" + line_of(kind, item.address, item.data);
    if (result.state == kAbsent) return line;
    put_result(result.failure ? document : document["modem"], result);
    return line + (result.failure ? "# " + result.failure->reason() : "+" + line_of(kind, item.address, result.data));
  };
  Pass(context, kind, std::move(job)).run();
}

constexpr const char* kDumpNotes =
    "Qualifier and index stand before = where they are not 0. Absent items are left out. Items that the modem refuses "
    "are comments, and the exit status is 1 then.";
constexpr const char* kPathNotes =
    "The service cannot list its EFS files, and a directory counts as absent: name each file, or give @FILE, a file "
    "with one path a line. Lines that begin with # are comments.";
constexpr const char* kRestoreNotes =
    "Nothing is written before the whole file has been checked. Items that the file does not have stay as they are. "
    "Where the modem refuses an item the others are written still, and the exit status is 1.";
constexpr const char* kDiffNotes =
    "Lines that begin with - are the file's, with + the modem's. Only the file's items are compared. The exit "
    "status is 1 where something differs, and also where the comparison fails.";

// --- efs-sync ---

struct SyncValues {
  int8_t mode = 0;
  uint32_t value = 0;
  uint16_t option = 0;
};

void sync_efs(const Context& context, const SyncValues& values) {
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  check(modem_api_efs_sync(client, values.mode, values.value, values.option), "synchronising the EFS");
  context.output.print({{"synchronised", true}}, "EFS: synchronised");
}

// --- raw ---

constexpr const char* kRawStep = "the pass-through command";
constexpr std::chrono::seconds kResponseTimeout{30};
constexpr Advice kTooManyBytes = {MODEM_API_ERR_INVALID_PARAM,
                                  "A pass-through command has at most 512 bytes: send less."};
static_assert(MODEM_API_MAX_PASS_THROUGH_BYTES == 512);

struct RawValues {
  DataInput input;
  bool is_async = false;
};

// Prints the responses until the last callback of the exchange.
void follow(const Context& context) {
  const auto deadline = Clock::now() + kResponseTimeout;
  const Signals::Follower ends_by_itself(context.signals);
  while (const auto arrival = context.inbox.next(deadline)) {
    if (arrival->kind != Arrival::Kind::kResponse) continue;
    if (arrival->number == MODEM_API_RESP_END) {
      const char* const name = describe_result(MODEM_API_RESP_END).name;
      return context.output.print({{"callback", "end"}, {"name", name}}, "end");
    }
    const auto result = static_cast<modem_api_result>(arrival->number);
    if (result != MODEM_API_SUCCESS) throw Failure::of_result(kRawStep, result, {}, arrival->exchange);
    Json document = {{"callback", "data"}};
    const Bytes& bytes = arrival->payload;
    put_bytes(document, bytes);
    context.output.print(document, "data: " + count_of(bytes.size(), "byte") + "\n" + hex_dump(bytes, 2));
  }
  if (!context.inbox.is_interrupted()) throw Failure::of_result(kRawStep, MODEM_API_ERR_TIMEOUT);
}

void send_raw(const Context& context, const RawValues& values) {
  const Bytes bytes = values.input.read();
  const auto length = static_cast<int32_t>(bytes.size());
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  if (!values.is_async) {
    check(modem_api_common_command(client, bytes.data(), length), kRawStep, {kTooManyBytes});
    const std::string text = "pass-through command: " + count_of(bytes.size(), "byte") + " accepted";
    return context.output.print({{"accepted_bytes", bytes.size()}}, text);
  }
  check(modem_api_common_command_async(client, bytes.data(), length, nullptr, Inbox::receive_response), kRawStep,
        {kTooManyBytes});
  context.output.print({{"sent_bytes", bytes.size()}},
                       "pass-through command: " + count_of(bytes.size(), "byte") + " sent");
  follow(context);
}

}  // namespace

void add_item_commands(CommandLine& line) {
  for (const Kind& kind : kinds()) {
    CLI::App& group =
        line.add_group(kind.command, std::string("read, write, delete, dump, restore and compare ") + kind.summary);
    const auto add = [&]<typename Values>(const char* name, const std::string& summary,
                                          void (*action)(const Context&, const Kind&, const Values&)) {
      const auto act = [&kind, action](const Context& context, const Values& values) { action(context, kind, values); };
      return line.add<Values>(group, name, summary, act);
    };
    const std::string what = std::string(" an ") + kind.title;
    const std::string example = kind.example;
    auto [reads, item] = add("read", "read" + what, read_item);
    add_address(reads, kind, item.address);
    item.output.add_to(reads);
    reads.add_examples({example, example + " --output item.bin"});
    auto [writes, written] = add("write", "write" + what, write_item);
    add_address(writes, kind, written.address);
    written.input.add_to(writes);
    writes.add_examples({example + " 0a 1b 2c", example + " --text hello"});
    auto [deletes, deleted] = add("delete", "delete" + what, delete_item);
    add_address(deletes, kind, deleted.address);
    deletes.add_examples({example, example + " --json"});

    auto [dumps, items] = add("dump", "print many, as a file", dump);
    dumps.add_notes("Each item is a line, as in '" + (kind.command + (" " + example)) + " = 68 69 # hi'.");
    dumps.add_notes(kDumpNotes);
    if (kind.by_path) dumps.add_notes(kPathNotes);
    dumps.add_examples({kind.by_path ? "@paths >items" : ">items", example + " --json"});
    if (!kind.by_path) items.words = {"0-65535"};
    dumps.add_text(kind.by_path ? "paths" : "ranges", items.words,
                   kind.by_path ? "the files' paths, or @FILE that has them (@-: standard input)"
                                : "numbers, or ranges as in 10-20 (default 0-65535)",
                   {.type = kind.by_path ? "PATH" : "RANGE", .is_required = kind.by_path});
    add_parts(dumps, kind, items.base);
    const Details file = {.type = "FILE", .is_required = true};
    auto [restores, restored] = add("restore", "write what a dump has", restore);
    restores.add_notes(kRestoreNotes);
    restores.add_examples({"items --yes", "items --dry-run"});
    restores.add_text("file", restored.file, "the dump (-: standard input)", file);
    restores.add_flag("--dry-run", restored.is_dry, "check the file, and write nothing");
    restored.confirmation.add_to(restores);
    auto [compares, compared] = add("diff", "compare a dump with the modem", diff);
    compares.add_notes(kDiffNotes);
    compares.add_examples({"items", "items --json"});
    compares.add_text("file", compared.file, "the dump (-: standard input)", file);
  }

  auto [sync, values] = line.add("efs-sync", "have the modem write its EFS to storage", sync_efs);
  sync.add_number("--mode", values.mode, "the mode; only with 0 are the value and the option sent");
  sync.add_number("--value", values.value, "the value");
  sync.add_number("--option", values.option, "the option");
  auto [raw, sent] = line.add("raw", "send a pass-through command of at most 512 bytes", send_raw);
  sent.input.add_to(raw);
  raw.add_flag("--async", sent.is_async, "do not wait in the call: show the data and the end as they arrive");
  raw.add_examples({"01 02 03", "--async --text ping"});
}

}  // namespace pelmar::cli

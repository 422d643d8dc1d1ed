// data: the numbered byte strings of a device. They need no PIN.
#include "tools/change.h"
#include "tools/data_objects.h"
#include "tools/files.h"
#include "tools/options.h"
#include "tools/output.h"
#include "tools/terminal.h"

#include <limits.h>
#include <algorithm>

namespace {
struct DataOptions {
  int id = 0;
  int size = 0;
  int offset = 0;
  int length = -1;
  bool yes = false;
  std::string file = "-";
  OutputOptions output;
};
}  // namespace

static Fields FactsOf(int id, size_t bytes) { return {{"id", id}, {"bytes", bytes}}; }

static void Create(const Target& target, const DataOptions& options) {
  const Session session(target);
  Device* device = session.device.get();
  RefuseTaken(device, options.id);
  RequireRoom(device, static_cast<size_t>(options.size));
  RequireChange(device, DeviceCreateData(device, options.id, 0, options.size),
                "create " + NameOfObject(options.id));
  Confirm("Created " + NameOfObject(options.id) + " of " + std::to_string(options.size) +
              " zero bytes.",
          FactsOf(options.id, static_cast<size_t>(options.size)));
}

static void List(const Target& target) {
  const Session session(target, true);
  Table table;
  Facts facts;
  for (const DataObject& object : DataObjects(session.device.get())) {
    const auto bytes = static_cast<size_t>(object.length);
    table.rows.push_back({std::to_string(object.id), Count(bytes, "byte")});
    facts.emplace_back(FactsOf(object.id, bytes));
  }
  Show(table.rows.empty() ? "No data objects." : table.Text(""), Fields{{"objects", facts}});
}

static void Get(const Target& target, const DataOptions& options) {
  const OutputFile output(options.output, Output::SECRET, target, {});
  const Session session(target);
  const DataObject object = FindObject(session.device.get(), options.id);
  if (options.offset > object.length) {
    throw Failure(NameOfObject(options.id) + " has only " + std::to_string(object.length) +
                  " bytes.");
  }
  const int rest = object.length - options.offset;
  const int length = options.length < 0 ? rest : std::min(rest, options.length);
  Secret bytes(static_cast<size_t>(length));
  unsigned int got = 0;
  if (length > 0 && DeviceReadDataEx(session.device.get(), options.id, options.offset, bytes.data(),
                                     length, &got) != VAKRO_OK) {
    throw Failure(NameOfObject(options.id) + " can't be read any more.");
  }
  output.Write(bytes);
}

static Bytes ReadContent(const std::string& file) {
  Bytes bytes = ReadInput(file);
  if (bytes.empty()) throw Failure("There is nothing to write: " + file + " is empty.");
  return bytes;
}

static void Write(const Target& target, const DataOptions& options) {
  const Bytes bytes = ReadContent(options.file);
  const Session session(target);
  const DataObject object = FindObject(session.device.get(), options.id);
  if (options.offset > object.length ||
      bytes.size() > static_cast<size_t>(object.length - options.offset)) {
    throw Failure("The bytes reach beyond the end of " + NameOfObject(options.id) + ", which has " +
                      std::to_string(object.length) + ".",
                  "A data object never grows: 'data delete' and 'data put' make it anew.");
  }
  RequireChange(session.device.get(),
                DeviceWriteDataEx(session.device.get(), options.id, options.offset, bytes.data(),
                                  static_cast<int>(bytes.size())),
                "write " + NameOfObject(options.id));
  Confirm("Wrote " + Count(bytes.size(), "byte") + " to " + NameOfObject(options.id) + ".",
          FactsOf(options.id, bytes.size()));
}

static void Put(const Target& target, const DataOptions& options) {
  const Bytes bytes = ReadContent(options.file);
  const Session session(target);
  const int id = PutObject(session, options.id, bytes);
  Confirm("Put " + Count(bytes.size(), "byte") + " into " + NameOfObject(id) + ".",
          FactsOf(id, bytes.size()));
}

static void Delete(const Target& target, const DataOptions& options) {
  const Session session(target);
  Device* device = session.device.get();
  const DataObject object = FindObject(device, options.id);
  RequireYes(options.yes,
             "Data object " + std::to_string(options.id) + " of device " + NameOf(device) + ", " +
                 Count(static_cast<size_t>(object.length), "byte") + ", will be gone for good.",
             "deleted");
  DeleteObject(session, object);
  Confirm("Deleted " + NameOfObject(options.id) + ".",
          FactsOf(options.id, static_cast<size_t>(object.length)));
}

// --- Options -------------------------------------------------------------------------------------

using DataCommand = void (*)(const Target&, const DataOptions&);
using SharedOptions = std::shared_ptr<DataOptions>;

static CLI::App& AddDataCommand(CLI::App& data, Target& target, const SharedOptions& options,
                                const char* name, const char* what, DataCommand run) {
  CLI::App& command =
      AddCommand(data, name, what, [&target, options, run] { run(target, *options); });
  AddDeviceOptions(command, target);
  if (run != Get) NoteJson(command, "{id, bytes}");
  return command;
}

static void AddId(CLI::App& command, const SharedOptions& options) {
  Add(command, {.name = "id",
                .into = &options->id,
                .help = "Number of the object",
                .isRequired = true,
                .range = {1, INT_MAX}});
}

static void AddOffset(CLI::App& command, const SharedOptions& options) {
  Add(command, {.name = "--offset",
                .into = &options->offset,
                .help = "Byte to begin at [0]",
                .value = "N",
                .range = {0, INT_MAX}});
}

static void AddFile(CLI::App& command, const SharedOptions& options) {
  AddArgument(command, "file", &options->file, "File with the bytes; - is standard input");
}

// `read` is the older name of `get`.
static void AddGet(CLI::App& data, Target& target, const SharedOptions& options, const char* name) {
  CLI::App& get = AddDataCommand(data, target, options, name, "Write out an object's bytes", Get);
  AddId(get, options);
  AddOffset(get, options);
  Add(get, {.name = "--length",
            .into = &options->length,
            .help = "Bytes to read [to the end]",
            .value = "N",
            .range = {0, INT_MAX}});
  AddOutputOptions(get, options->output, "File to write");
}

void AddDataCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<DataOptions>();
  CLI::App& data = AddFamily(app, "data", "Numbered byte strings on a device; they need no PIN");

  CLI::App& put = AddDataCommand(data, target, options, "put", "Make an object of a file", Put);
  AddFile(put, options);
  Add(put, {.name = "--id",
            .into = &options->id,
            .help = "Number of the object [the first that is free]",
            .value = "N",
            .range = {1, INT_MAX}});

  AddGet(data, target, options, "get");
  AddGet(data, target, options, "read");

  CLI::App& list =
      AddCommand(data, "list", "Show the objects and their sizes", [&target] { List(target); });
  AddDeviceOptions(list, target);
  NoteJson(list, "{objects: [{id, bytes}]}");

  CLI::App& create =
      AddDataCommand(data, target, options, "create", "Make an object of zero bytes", Create);
  AddId(create, options);
  Add(create, {.name = "size",
               .into = &options->size,
               .help = "Bytes; the size never changes",
               .isRequired = true,
               .range = {1, INT_MAX}});

  CLI::App& write =
      AddDataCommand(data, target, options, "write", "Overwrite bytes of an object", Write);
  AddId(write, options);
  AddOffset(write, options);
  AddFile(write, options);

  CLI::App& remove =
      AddDataCommand(data, target, options, "delete", "Remove an object for good", Delete);
  AddId(remove, options);
  AddYesOption(remove, options->yes);
}

// data: the numbered byte strings of a device. They need no PIN.
#include "store/store.h"
#include "tools/change.h"
#include "tools/data_objects.h"
#include "tools/files.h"
#include "tools/options.h"
#include "tools/output.h"
#include "tools/terminal.h"

#include <limits.h>
#include <algorithm>

struct DataOptions {
  int id = 0;
  int size = 0;
  int offset = 0;
  int length = -1;
  bool yes = false;
  std::string file = "-";
  OutputOptions output;
};

static constexpr size_t SLACK = 65536;  // bytes of a device file that no object is given

struct DataRecords {
  Data** items = nullptr;
  unsigned int count = 0;
  DataRecords() = default;
  DataRecords(const DataRecords&) = delete;
  DataRecords& operator=(const DataRecords&) = delete;
  ~DataRecords() { FreeDatas(items, static_cast<int>(count)); }
};

static Failure Unreadable(Device* device) {
  return Failure("The data objects of device " + NameOf(device) + " can't be read.",
                 "'softdevice check' says what is wrong with them.");
}

std::vector<DataObject> DataObjects(Device* device) {
  const ModuleLock lock;
  DataRecords list;
  if (!lock.held || GetAllDatasFromFile(device, &list.items, &list.count) != 1) {
    throw Unreadable(device);
  }
  std::vector<DataObject> objects;
  for (unsigned int i = 0; i < list.count; i++) {
    objects.push_back({list.items[i]->id, list.items[i]->length});
  }
  std::sort(objects.begin(), objects.end(),
            [](const DataObject& a, const DataObject& b) { return a.id < b.id; });
  return objects;
}

static std::string Named(int id) { return "data object " + std::to_string(id); }

// FindObject fails when there is no such object.
static DataObject FindObject(Device* device, int id) {
  for (const DataObject& object : DataObjects(device)) {
    if (object.id == id) return object;
  }
  throw Failure(EXIT_NOT_FOUND, "There is no " + Named(id) + ".",
                "'softdevice data list' shows what there is.");
}

static bool HasObject(Device* device, int id) {
  const std::vector<DataObject> objects = DataObjects(device);
  return std::any_of(objects.begin(), objects.end(),
                     [id](const DataObject& object) { return object.id == id; });
}

static Fields FactsOf(int id, size_t bytes) { return {{"id", id}, {"bytes", bytes}}; }

static Failure Taken(int id) {
  return Failure(EXIT_EXISTS, "There is a " + Named(id) + " already.", "Choose another number.");
}

// The text of the device file holds two digits for a byte.
static void RequireRoom(const Device* device, size_t size) {
  struct stat status = {};
  const size_t taken =
      stat(device->filePath, &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
  const size_t room = (MAX_FILE_SIZE - std::min<size_t>(MAX_FILE_SIZE, taken + SLACK)) / 2;
  if (size <= room) return;
  throw Failure("The device has room for a data object of at most " + Count(room, "byte") + ".");
}

static void Create(const Target& target, const DataOptions& options) {
  const Session session(target);
  Device* device = session.device.get();
  if (HasObject(device, options.id)) throw Taken(options.id);
  RequireRoom(device, static_cast<size_t>(options.size));
  RequireChange(device, DeviceCreateData(device, options.id, 0, options.size),
                "create " + Named(options.id));
  Confirm("Created " + Named(options.id) + " of " + std::to_string(options.size) + " zero bytes.",
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
    throw Failure(Named(options.id) + " has only " + std::to_string(object.length) + " bytes.");
  }
  const int rest = object.length - options.offset;
  const int length = options.length < 0 ? rest : std::min(rest, options.length);
  Secret bytes(static_cast<size_t>(length));
  unsigned int got = 0;
  if (length > 0 && DeviceReadDataEx(session.device.get(), options.id, options.offset, bytes.data(),
                                     length, &got) != VAKRO_OK) {
    throw Failure(Named(options.id) + " can't be read any more.");
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
    throw Failure("The bytes reach beyond the end of " + Named(options.id) + ", which has " +
                      std::to_string(object.length) + ".",
                  "A data object never grows: 'data delete' and 'data put' make it anew.");
  }
  RequireChange(session.device.get(),
                DeviceWriteDataEx(session.device.get(), options.id, options.offset, bytes.data(),
                                  static_cast<int>(bytes.size())),
                "write " + Named(options.id));
  Confirm("Wrote " + Count(bytes.size(), "byte") + " to " + Named(options.id) + ".",
          FactsOf(options.id, bytes.size()));
}

static bool HasObject(const DeviceChange& change, int id) {
  return std::any_of(change.datas, change.datas + change.dataCount,
                     [id](const Data* data) { return data->id == id; });
}

static int FreeNumber(const DeviceChange& change) {
  int id = 1;
  while (HasObject(change, id)) id++;
  return id;
}

static void Append(DeviceChange& change, int id, const Bytes& bytes) {
  OwnedData data(newData(id, static_cast<int>(bytes.size())));
  if (data && change.datas == nullptr) change.datas = Allocate<Data*>(1, "tools");
  if (!data || change.datas == nullptr) throw std::bad_alloc();
  std::copy(bytes.begin(), bytes.end(), data->value);
  change.datas[change.dataCount++] = data.release();
  change.datasChanged = true;
}

static void Put(const Target& target, const DataOptions& options) {
  const Bytes bytes = ReadContent(options.file);
  const Session session(target);
  RequireRoom(session.device.get(), bytes.size());
  int id = options.id;
  ChangeDevice(session, "put the data object", [&](DeviceChange& change) {
    if (!change.datasKnown) throw Unreadable(session.device.get());
    if (HasObject(change, id)) throw Taken(id);
    if (id == 0) id = FreeNumber(change);
    Append(change, id, bytes);
  });
  Confirm("Put " + Count(bytes.size(), "byte") + " into " + Named(id) + ".",
          FactsOf(id, bytes.size()));
}

static void Delete(const Target& target, const DataOptions& options) {
  const Session session(target);
  Device* device = session.device.get();
  const DataObject object = FindObject(device, options.id);
  RequireYes(options.yes,
             Named(options.id) + " of device " + NameOf(device) + ", " +
                 Count(static_cast<size_t>(object.length), "byte") + ", will be gone for good.",
             "deleted");
  RequireChange(device, DeviceDeleteData(device, options.id), "delete " + Named(options.id));
  Confirm("Deleted " + Named(options.id) + ".",
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
  Add(command, {.name = "file",
                .into = &options->file,
                .help = "File with the bytes; - is standard input",
                .isRequired = true});
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

// data: the numbered byte strings of a device. They need no PIN.
#include "store/store.h"
#include "tools/data_list.h"
#include "tools/files.h"
#include "tools/session.h"

#include <CLI/CLI.hpp>

#include <limits.h>
#include <stdio.h>

struct DataOptions {
  int id = 0;
  int size = 0;
  int offset = 0;
  int length = -1;
  std::string file = "-";
};

struct DataList {
  Data** items = nullptr;
  unsigned int count = 0;
  DataList() = default;
  DataList(const DataList&) = delete;
  DataList& operator=(const DataList&) = delete;
  ~DataList() { FreeDatas(items, static_cast<int>(count)); }
};

static void RequireObject(int result, int id) {
  if (result == VAKRO_OK) return;
  if (result == VAKRO_NO_SUCH_DATA) {
    throw Failure("There is no data object " + std::to_string(id) + ".",
                  "'softdevice data list' shows what there is.");
  }
  throw Failure("The data objects can't be read, or the disk is full; the file is as it was.");
}

static void Create(const Target& target, const DataOptions& options) {
  const Session session(target);
  RequireChange(DeviceCreateData(session.device.get(), options.id, 0, options.size),
                "create data object " + std::to_string(options.id));
  printf("Created data object %d of %d zero bytes.\n", options.id, options.size);
}

static void List(const Target& target) {
  const Session session(target);
  const ModuleLock lock;
  DataList list;
  if (!lock.held || GetAllDatasFromFile(session.device.get(), &list.items, &list.count) != 1) {
    throw Failure("The data objects of device " + LabelOf(session.device.get()) +
                  " can't be read: the list is damaged.");
  }
  if (list.count == 0) printf("No data objects.\n");
  for (unsigned int i = 0; i < list.count; i++) {
    printf("%10d  %d bytes\n", list.items[i]->id, list.items[i]->length);
  }
}

static void Read(const Target& target, const DataOptions& options) {
  const Session session(target);
  Device* device = session.device.get();
  unsigned int available = 0;
  RequireObject(DeviceReadDataEx(device, options.id, 0, nullptr, 0, &available), options.id);
  if (options.offset > static_cast<int>(available)) {
    throw Failure("Data object " + std::to_string(options.id) + " has only " +
                  std::to_string(available) + " bytes.");
  }
  unsigned int length = available - static_cast<unsigned int>(options.offset);
  if (options.length >= 0) length = std::min(length, static_cast<unsigned int>(options.length));
  Bytes bytes(length);
  if (length > 0) {
    RequireObject(DeviceReadDataEx(device, options.id, options.offset, bytes.data(),
                                   static_cast<int>(length), &length),
                  options.id);
  }
  WriteOutput(options.file, bytes, Output::SECRET);
}

static void Write(const Target& target, const DataOptions& options) {
  const Bytes bytes = ReadInput(options.file);
  if (bytes.empty()) throw Failure("There is nothing to write: " + options.file + " is empty.");
  const Session session(target);
  const int result = DeviceWriteDataEx(session.device.get(), options.id, options.offset,
                                       bytes.data(), static_cast<int>(bytes.size()));
  if (result == VAKRO_OUT_OF_RANGE) {
    throw Failure(
        "The bytes reach beyond the end of data object " + std::to_string(options.id) + ".",
        "A data object never grows: 'softdevice data list' shows its size.");
  }
  RequireObject(result, options.id);
  printf("Wrote %zu bytes to data object %d.\n", bytes.size(), options.id);
}

static void Delete(const Target& target, const DataOptions& options) {
  const Session session(target);
  RequireObject(DeviceDeleteData(session.device.get(), options.id), options.id);
  printf("Deleted data object %d.\n", options.id);
}

static void Tidy(const Target& target) {
  const Session session(target);
  ForgetEmptyList(session.device.get());
  printf("The empty list of data objects is gone; keypairs can be deleted again.\n");
}

using DataCommand = void (*)(const Target&, const DataOptions&);

using SharedOptions = std::shared_ptr<DataOptions>;

static CLI::App* AddObjectCommand(CLI::App& data, Target& target, const SharedOptions& options,
                                  const char* name, const char* what, DataCommand run) {
  CLI::App* command = data.add_subcommand(name, what);
  AddDeviceOptions(*command, target);
  command->add_option("id", options->id, "Number of the object")
      ->required()
      ->check(CLI::Range(1, INT_MAX).description(""));
  command->callback([&target, options, run] { run(target, *options); });
  return command;
}

static void AddOffset(CLI::App* command, const SharedOptions& options) {
  command->add_option("--offset", options->offset, "Byte to begin at [0]")
      ->type_name("N")
      ->check(CLI::Range(0, INT_MAX).description(""));
}

void AddDataCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<DataOptions>();
  CLI::App* data =
      app.add_subcommand("data", "Numbered byte strings on a device; they need no PIN");
  data->require_subcommand(1);

  AddObjectCommand(*data, target, options, "create", "Make an object of zero bytes", Create)
      ->add_option("size", options->size, "Bytes; the size never changes")
      ->required()
      ->check(CLI::Range(1, INT_MAX).description(""));

  CLI::App* list = data->add_subcommand("list", "Show the objects and their sizes");
  AddDeviceOptions(*list, target);
  list->callback([&target] { List(target); });

  CLI::App* read =
      AddObjectCommand(*data, target, options, "read", "Write out an object's bytes", Read);
  AddOffset(read, options);
  read->add_option("--length", options->length, "Bytes to read [to the end]")
      ->type_name("N")
      ->check(CLI::Range(0, INT_MAX).description(""));
  read->add_option("-o,--output", options->file, "File to write [standard output]")
      ->type_name("FILE");

  CLI::App* write =
      AddObjectCommand(*data, target, options, "write", "Overwrite bytes of an object", Write);
  AddOffset(write, options);
  write->add_option("file", options->file, "File with the bytes; - is standard input")->required();

  AddObjectCommand(*data, target, options, "delete", "Remove an object", Delete);

  CLI::App* tidy = data->add_subcommand(
      "tidy", "Drop the list of data objects once it is empty, so that keypairs can be deleted");
  AddDeviceOptions(*tidy, target);
  tidy->callback([&target] { Tidy(target); });
}

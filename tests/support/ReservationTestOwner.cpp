// A program that holds a sound card's reservation on a bus and answers RequestRelease as told, so
// tests can meet owners that real sound servers are not: one that refuses and one that never
// answers.
//
//   harkwell_reservation_test_owner ADDRESS CARD refuse|silent APPLICATION-NAME
//
// It writes "holding" once it owns the name, and serves until it is killed.
#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Owner {
  bool answers = true;
  std::string applicationName;
  std::vector<sd_bus_message*> unanswered;  // kept unanswered until the program ends
};

int RequestRelease(sd_bus_message* message, void* userdata, sd_bus_error*) {
  auto* owner = static_cast<Owner*>(userdata);
  if (!owner->answers) {
    owner->unanswered.push_back(sd_bus_message_ref(message));
    return 1;
  }
  return sd_bus_reply_method_return(message, "b", 0);
}

int ReadPriority(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                 sd_bus_error*) {
  return sd_bus_message_append(reply, "i", std::int32_t{0});
}

int ReadApplicationName(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                        void* userdata, sd_bus_error*) {
  return sd_bus_message_append(reply, "s", static_cast<Owner*>(userdata)->applicationName.c_str());
}

int ReadApplicationDeviceName(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                              void*, sd_bus_error*) {
  return sd_bus_message_append(reply, "s", "test card");
}

const sd_bus_vtable kVTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("RequestRelease", "i", "b", RequestRelease, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("Priority", "i", ReadPriority, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("ApplicationName", "s", ReadApplicationName, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("ApplicationDeviceName", "s", ReadApplicationDeviceName, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_VTABLE_END};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s ADDRESS CARD refuse|silent APPLICATION-NAME\n", argv[0]);
    return 2;
  }
  Owner owner;
  owner.answers = std::string(argv[3]) != "silent";
  owner.applicationName = argv[4];
  const std::string device = std::string("Audio") + argv[2];
  const std::string name = "org.freedesktop.ReserveDevice1." + device;
  const std::string path = "/org/freedesktop/ReserveDevice1/" + device;

  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, argv[1]) < 0 ||
      sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0) {
    std::fprintf(stderr, "cannot connect to %s\n", argv[1]);
    return 1;
  }
  if (sd_bus_add_object_vtable(bus, nullptr, path.c_str(), "org.freedesktop.ReserveDevice1",
                               kVTable, &owner) < 0 ||
      sd_bus_request_name(bus, name.c_str(), SD_BUS_NAME_ALLOW_REPLACEMENT) < 0) {
    std::fprintf(stderr, "cannot own %s\n", name.c_str());
    return 1;
  }
  std::printf("holding\n");
  std::fflush(stdout);
  for (;;) {
    const int status = sd_bus_process(bus, nullptr);
    if (status < 0) return 1;
    if (status == 0 && sd_bus_wait(bus, UINT64_MAX) < 0) return 1;
  }
}

// A bare libpulse client for the tests and benchmarks: it loads and unloads modules, suspends
// sources, opens recording streams as an application would, and can report the server's
// subscription events as they arrive (what `pactl subscribe` prints). Every call waits for the
// server's answer, so when it returns the server has done the work.
//
// Calls come from one thread at a time; the event handler runs on the client's own libpulse thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

struct pa_threaded_mainloop;
struct pa_context;
struct pa_stream;

namespace harkwell::testing {

class PulseTestClient {
 public:
  // Subscription events: PA_SUBSCRIPTION_EVENT_* facility and type, and the object's index.
  using EventHandler = std::function<void(unsigned facility, unsigned type, std::uint32_t index)>;

  struct RecordingOptions {
    bool startCorked = false;
    // Asks for peaks at a low rate, as volume meters do.
    bool levelMeter = false;
  };

  // A recording stream; it ends when the object is destroyed.
  class Recording {
   public:
    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;
    // Corks or uncorks the stream and waits for the server's answer.
    bool setCorked(bool corked);

   private:
    friend class PulseTestClient;
    // Disconnects the stream; the caller holds the client's loop lock.
    void end();
    Recording(PulseTestClient& client, pa_stream* stream) : client_(client), stream_(stream) {}
    PulseTestClient& client_;
    pa_stream* stream_;
  };

  // Connects to `server` (a libpulse server string) and waits for the connection.
  explicit PulseTestClient(const std::string& server);
  ~PulseTestClient();
  PulseTestClient(const PulseTestClient&) = delete;
  PulseTestClient& operator=(const PulseTestClient&) = delete;

  bool isConnected() const;

  // The module's index, or nullopt when the server refused it.
  std::optional<std::uint32_t> loadModule(const std::string& name, const std::string& arguments);
  bool unloadModule(std::uint32_t index);
  bool suspendSource(const std::string& name, bool suspend);
  // The server's index of the source, or nullopt when it has none by that name.
  std::optional<std::uint32_t> sourceIndex(const std::string& name);
  // The source's state as the server tells it: "RUNNING", "IDLE" or "SUSPENDED".
  std::optional<std::string> sourceState(const std::string& name);

  // How many streams record from the source named `name` (uncorked ones only, or all); nullopt
  // when the server has no such source.
  std::optional<std::size_t> recordingCount(const std::string& name, bool uncorkedOnly = true);

  // A stream recording from `source`, once the server has made it; null when it failed.
  std::unique_ptr<Recording> record(const std::string& source, RecordingOptions options);
  std::unique_ptr<Recording> record(const std::string& source) {
    return record(source, RecordingOptions());
  }

  // Starts a stream recording from `source` and ends `previous` in the same breath, without
  // waiting for the server in between; returns the new stream once the server has made it.
  std::unique_ptr<Recording> replace(std::unique_ptr<Recording> previous,
                                     const std::string& source);

  // Subscribes to source, sink and source-output events; `handler` receives each one.
  bool subscribe(EventHandler handler);

 private:
  std::unique_ptr<Recording> startRecording(const std::string& source, RecordingOptions options,
                                            std::unique_ptr<Recording> previous);

  pa_threaded_mainloop* loop_ = nullptr;
  pa_context* context_ = nullptr;
  bool connected_ = false;
  EventHandler handler_;
};

}  // namespace harkwell::testing

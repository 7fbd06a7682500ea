// A request frame through the gateway's JSON-RPC session, on a broker with the host's built-in
// services. Every frame the session sends must be JSON, and every call must finish.
#include <bexko/gateway/rpcsession.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <boost/shared_ptr.hpp>
#include <nlohmann/json.hpp>

#include <bexko/services/builtinservices.h>
#include <zr/zrbroker.h>
#include <zr/zrbrokermanager.h>

#include "fuzzhost.h"
#include "fuzzsupport.h"

namespace {

boost::shared_ptr<ZR::ZRBroker> broker;

void checkFrame(const bexko::gateway::Frame& frame) {
  if (!nlohmann::json::accept(*frame)) {
    std::fprintf(stderr, "the session sent a frame that is not JSON: %s\n", frame->c_str());
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  bexko::fuzz::prepareFuzzing();
  broker = bexko::fuzz::startFuzzHost().broker;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  auto session = bexko::gateway::RpcSession::create(broker, &checkFrame);
  session->handleText(std::string(reinterpret_cast<const char*>(data), size));
  // Module calls run on host threads: wait for them, so that each input is judged alone.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (session->callsInFlight() > 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      std::fprintf(stderr, "a call did not finish within 10 s\n");
      std::abort();
    }
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  session->close();
  return 0;
}

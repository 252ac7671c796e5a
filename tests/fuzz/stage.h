// Where a decoder's bytes meet the product: the simulated modem with a tap before every service,
// which records what a healthy modem answers, or puts other bytes in its place. One stage at a
// time, used by one thread; the product starts with new clients. The AT command starts no shell.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/modem/modem_conf.h"
#include "platform/qmi/service_bus.h"
#include "qmi_idl.h"
#include "tests/fuzz/decoders.h"

namespace kiv::fuzz {

// The message description of a service.
const qmi_idl_service_object& object_of(uint32_t service);

// The message id before the encoded message, as an indication's bytes begin.
Bytes with_id(unsigned msg_id, ByteView encoded);

// Runs the tool in this process; a single `separator` stands between its arguments.
void run_command(const std::string& line, char separator = ' ');

// Whether standard output gets the debug class, too; it does at start.
void show_traces(bool on);

class Stage {
 public:
  explicit Stage(const Decoder& row);
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  // The seeds: the row's own samples, then what comes while its commands run on the healthy modem.
  std::vector<Bytes> record();
  // Puts the bytes in front of the product. `filler` stands behind a payload in its message.
  void feed(ByteView bytes, uint8_t filler = 0);

 private:
  void tap();
  void run_row(ByteView bytes);
  void keep(Bytes seed);
  void indicate(uint32_t service) const;
  platform::ServiceReply replacement(ByteView request) const;
  platform::ServiceReply answer(uint32_t service, const platform::Service& modem, uint16_t msg_id,
                                ByteView request);
  void tap_diag();

  const Decoder& row_;
  platform::ModemConf conf_;  // healthy
  bool recording_ = false;
  uint8_t selector_ = 0;  // the command that runs
  uint8_t filler_ = 0;
  Bytes bytes_;       // what stands in for the modem's own
  std::mutex mutex_;  // guards the next one: indications come on a thread of their own
  std::vector<Bytes> recorded_;
};

}  // namespace kiv::fuzz

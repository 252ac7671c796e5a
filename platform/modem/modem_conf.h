// What the simulated modem is and does, from `modem.conf` in the state directory. Read once, by the
// thread that publishes the modem's services. The file is untrusted: what cannot be understood is
// named on standard error with its line number, and the rest still counts.
#pragma once

#include <cstdint>
#include <string_view>

namespace kiv::platform {

// How one service of the modem misbehaves.
struct ServiceFault {
  enum class Kind : uint8_t {
    kNone,
    kDown,    // not on the bus
    kSilent,  // never answers
    kError,   // every send ends with the transport error `code`
    kResult,  // the service answers with its own failure `code`
  };
  Kind kind = Kind::kNone;
  int32_t code = 0;
};

struct ModemConf {
  ServiceFault extension_fault;
  // Not 0: the extension service carries out no class 2 and class 4 request and answers with this
  // as the payload's own result word.
  int32_t extension_rsp_result = 0;
};

// The configuration that the text of a `modem.conf` describes.
ModemConf parse_modem_conf(std::string_view text);

// The configuration of the state directory; that of a healthy modem when there is no file.
ModemConf load_modem_conf();

}  // namespace kiv::platform

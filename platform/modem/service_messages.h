// What the modem's services are made of: each is a constant list of messages, and what they have in
// common is derived from it here: the description that the framework has of the service, and the
// way of a request from its bytes to its answer. Called on the threads of the senders, several at
// once; requests and files are untrusted.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/modem/modem_conf.h"
#include "platform/qmi/qmi_idl_codec.h"
#include "platform/qmi/service_bus.h"
#include "qmi_client.h"
#include "qmi_idl.h"

namespace kiv::platform {

// Outcomes of a request, with QMI's error numbers.
inline constexpr qmi_result kDone{.result = 0, .error = 0};
inline constexpr qmi_result kInternalError{.result = 1, .error = 3};
inline constexpr qmi_result kInvalidArgument{.result = 1, .error = 48};

// The body of a message that has none.
struct NoBody {};

// The description of a message; without fields it travels as its C structure.
template <class Body>
constexpr qmi_idl_message describe(uint16_t id, std::span<const qmi_idl_field> fields = {}) {
  constexpr size_t kSize = std::is_empty_v<Body> ? 0 : sizeof(Body);
  return {.id = id, .c_struct_len = kSize, .max_encoded_len = kSize, .fields = fields};
}

// What the requests of a service work on; a service that keeps more derives from it.
struct ServiceState {
  const ModemConf conf;
  // Left by a handler, done before its answer goes back; the next request does not wait for it.
  std::function<void()> afterwards{};
};

// A row of a service's list: the message `id`, as request and as response, and its handler, which
// gets the zeroed response, fills it in and returns its outcome.
template <class State, class Request, class Response>
struct Message {
  uint16_t id = 0;
  qmi_result (*handle)(State& state, const Request& request, Response& response) = nullptr;
  std::span<const qmi_idl_field> request_fields{};
  std::span<const qmi_idl_field> response_fields{};

  constexpr qmi_idl_message request() const { return describe<Request>(id, request_fields); }
  constexpr qmi_idl_message response() const { return describe<Response>(id, response_fields); }
};

template <class State, class Request, class Response, class... Fields>
Message(uint16_t, qmi_result (*)(State&, const Request&, Response&), Fields...)
    -> Message<State, Request, Response>;

template <const auto& messages>
inline constexpr auto kRequestsOf =
    std::apply([](const auto&... row) { return std::array{row.request()...}; }, messages);
template <const auto& messages>
inline constexpr auto kResponsesOf =
    std::apply([](const auto&... row) { return std::array{row.response()...}; }, messages);

// What the framework knows of the service whose list is `messages`, a tuple of rows.
template <const auto& messages>
constexpr qmi_idl_service_object service_object(uint32_t service_id, uint32_t idl_minor_version,
                                                std::span<const qmi_idl_message> indications = {}) {
  qmi_idl_service_object object{.library_version = 6,
                                .idl_version = 1,
                                .service_id = service_id,
                                .idl_minor_version = idl_minor_version,
                                .max_message_len = 0,
                                .requests = kRequestsOf<messages>,
                                .responses = kResponsesOf<messages>,
                                .indications = indications};
  for (const auto& table : {object.requests, object.responses, object.indications}) {
    for (const qmi_idl_message& row : table) {
      object.max_message_len = std::max(object.max_message_len, row.max_encoded_len);
    }
  }
  return object;
}

// `object`, or null when it is of another version.
qmi_idl_service_object_type object_of_version(const qmi_idl_service_object& object,
                                              uint32_t idl_major_version,
                                              uint32_t idl_minor_version, uint32_t library_version);

// The bytes of `object`, as they lie in memory.
template <class Object>
std::span<const uint8_t> bytes_of(const Object& object) {
  return {reinterpret_cast<const uint8_t*>(&object), sizeof object};
}
template <class Object>
std::span<uint8_t> bytes_of(Object& object) {
  return {reinterpret_cast<uint8_t*>(&object), sizeof object};
}

// A message of another make, as that of the extension service, has its own overloads of the two
// functions below beside its structure.

// False when the bytes are not the message that `description` describes.
template <class Body>
[[nodiscard]] bool decode_body(const qmi_idl_message& description, std::span<const uint8_t> encoded,
                               Body& body) {
  return decode_message(description, encoded, bytes_of(body).first(description.c_struct_len));
}

template <class Response>
void set_outcome(Response& response, qmi_result outcome) {
  response.resp = outcome;
}

// A service on the bus. A handler has the state to itself.
template <class State>
class ServiceAtWork {
 public:
  ServiceAtWork(uint32_t service_id, const ModemConf& conf)
      : fault_(conf.fault_of(service_id)), state_{{conf}} {}

  template <class Request, class Response>
  ServiceReply answer(const Message<State, Request, Response>& row,
                      std::span<const uint8_t> encoded) {
    Request request{};
    if (!decode_body(row.request(), encoded, request)) {
      return ServiceReply::transport_error(QMI_INTERNAL_ERR);
    }
    Response response{};
    if (fault_.kind == ServiceFault::Kind::kResult) {
      set_outcome(response, {.result = 1, .error = fault_.code});
    } else {
      std::unique_lock lock(mutex_);
      set_outcome(response, row.handle(state_, request, response));
      const auto afterwards = std::exchange(state_.afterwards, nullptr);
      lock.unlock();
      if (afterwards) {
        afterwards();
      }
    }
    const qmi_idl_message description = row.response();
    auto bytes = encode_message(description, bytes_of(response).first(description.c_struct_len));
    return bytes ? ServiceReply::response(std::move(*bytes))
                 : ServiceReply::transport_error(QMI_INTERNAL_ERR);
  }

 private:
  const ServiceFault fault_;
  std::mutex mutex_;
  State state_;
};

// The service whose list is `messages`, with a state of its own made from `conf`. A message that is
// not in the list ends in a transport error.
template <const auto& messages, class State = ServiceState>
Service make_service(uint32_t service_id, const ModemConf& conf) {
  return [service = std::make_shared<ServiceAtWork<State>>(service_id, conf)](
             uint16_t msg_id, std::span<const uint8_t> encoded) {
    auto reply = ServiceReply::transport_error(QMI_INTERNAL_ERR);
    const auto answer = [&](const auto& row) {
      if (row.id == msg_id) {
        reply = service->answer(row, encoded);
      }
    };
    std::apply([&](const auto&... row) { (answer(row), ...); }, messages);
    return reply;
  };
}

// The number in the state file (4 bytes, little-endian), or `initial` when it holds none.
uint32_t read_stored_number(std::string_view name, uint32_t initial);

// 0 or errno.
[[nodiscard]] int write_stored_number(std::string_view name, uint32_t number);

}  // namespace kiv::platform

#include "platform/modem/vs_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <future>
#include <string>

#include "nas_idl.h"
#include "platform/modem/extension_service.h"
#include "qmi_client.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using platform::parse_modem_conf;
using platform::ServiceReply;
using Bytes = std::vector<uint8_t>;

const Bytes kSucceeded{2, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0};

// One entry without a value for each id.
Bytes parameters_request(uint8_t sub, const Bytes& ids) {
  const auto count = static_cast<uint8_t>(ids.size());
  const auto size = static_cast<uint8_t>(1 + 10 * count);
  Bytes request{1, 2, 0, sub, 0, 2, 2, 0, 7, 0, 3, size, 0, count};
  for (const uint8_t id : ids) {
    request.insert(request.end(), {0, 0, 0xAA, 0, id, 0, 0, 0, 0, 0});
  }
  return request;
}

TEST(VsService, AnswersWhatTheSubscriptionHas) {
  const char* const no_lte = "rat.0 = 12\nrat.1 = 4";
  const char* const given = "stats.0x52.1 = none\nstats.0x52.1 = 01 0aFF\nstats.82.0 = none";
  const struct {
    const char* conf;
    Bytes ids;
    uint8_t sub;
    uint8_t size;  // of the value; 0: there is none
    Bytes value = {};
  } cases[] = {
      {"", {0x52, 0x67, 0x68, 0x69, 0x6A, 0x6B, 0x6C}, 0, 75},
      {"", {0x87, 0x06, 0x07}, 1, 24},
      {"", {0x5E, 0x70}, 1, 20},
      {"", {0x71}, 1, 16, {1, 0, 0, 0, 0, 4, 1, 5, 2, 6, 3, 7, 8, 10, 9, 11}},
      {"", {0x5A}, 1, 52},
      {"", {0x6E, 0x6F}, 0, 9},
      {"", {0x64}, 0, 8, {1, 4, 2, 0, 5, 0, 0, 1}},
      {"", {0x62}, 0, 8, {1, 12, 0, 98, 23, 0, 11, 0}},
      {"", {0x2C}, 1, 5, {1, 12, 0, 0, 0}},
      {"", {0x87, 0x06, 0x07, 0x5E, 0x70, 0x71, 0x5A, 0x05, 0x08, 0x66}, 0, 0},
      {"", {0x52, 0x67, 0x6C, 0x62, 0x6D, 0x00}, 1, 0},
      {no_lte, {0x5E}, 0, 20},
      {no_lte, {0x52, 0x87}, 1, 0},
      {no_lte, {0x2C}, 1, 5, {1, 4, 0, 0, 0}},
      {given, {0x52}, 1, 3, {1, 10, 255}},
      {given, {0x52}, 0, 0},
  };
  for (const auto& row : cases) {
    const auto service = platform::make_vs_service(parse_modem_conf(row.conf));
    for (const uint8_t id : row.ids) {
      const Bytes answer = service(0x0207, parameters_request(row.sub, {id})).bytes;
      Bytes start = kSucceeded;
      start.insert(start.end(), {0x10, 1, 0, 0});
      if (row.size != 0) {
        start[12] = static_cast<uint8_t>(row.size + 11);
        start[14] = 1;
        start.insert(start.end(), {row.sub, 0, 0xAA, 0, id, 0, 0, 0, row.size, 0});
      }
      ASSERT_EQ(answer.size(), start.size() + row.size) << row.conf << " " << int{id};
      const auto value = answer.begin() + static_cast<int>(start.size());
      EXPECT_EQ(Bytes(answer.begin(), value), start);
      EXPECT_TRUE(row.value.empty() || Bytes(value, answer.end()) == row.value) << int{id};
    }
  }
}

TEST(VsService, RefusesWhatItCannotReadOrDoesNotKnow) {
  const auto service = platform::make_vs_service({});
  const Bytes request = parameters_request(0, {0x52, 0x11, 0x2C});
  EXPECT_EQ(service(0x0207, request).bytes[14], 2) << "the unknown one is left out";
  for (size_t cut = 0; cut < request.size(); ++cut) {
    const Bytes part(request.begin(), request.begin() + static_cast<int>(cut));
    EXPECT_EQ(service(0x0207, part).kind, ServiceReply::Kind::kError) << cut;
  }
  EXPECT_EQ(service(0x0208, request).kind, ServiceReply::Kind::kError);
  const Bytes eleven = parameters_request(0, Bytes(11, 0x2C));
  EXPECT_EQ(service(0x0207, eleven).kind, ServiceReply::Kind::kError);
  EXPECT_EQ(service(0x0207, parameters_request(2, {0x2C})).bytes,
            (Bytes{2, 8, 0, 1, 0, 0, 0, 48, 0, 0, 0}));
  const auto failing = platform::make_vs_service(parse_modem_conf("fault.vs = result:26"));
  EXPECT_EQ(failing(0x0207, request).bytes, (Bytes{2, 8, 0, 1, 0, 0, 0, 26, 0, 0, 0}));
}

using ModemServicesTest = StateDirectoryTest;

TEST_F(ModemServicesTest, SwitchingTheStatisticsOnSendsTheIndications) {
  struct Receiver {
    Bytes received;
    std::promise<Bytes> done;
  } receiver;
  write_state_file_text("modem.conf", "vs.indication.0601 = 01 02\nvs.indication.0x204 = 03\n");
  // Without field rows: the encoded bytes as they are.
  constexpr std::array<qmi_idl_message, 1> kRaw{{{3, 11, 11, {}}}};
  const qmi_idl_service_object object{6, 1, platform::kVsServiceId, 2, 11, kRaw, kRaw, {}};
  const auto store = [](qmi_client_type, unsigned int id, void* data, unsigned int size, void* to) {
    auto* const bytes = static_cast<uint8_t*>(data);
    Bytes& received = static_cast<Receiver*>(to)->received;
    received.push_back(static_cast<uint8_t>(id & 0xFF));
    received.insert(received.end(), bytes, bytes + size);
    if (received.size() == 5) {
      static_cast<Receiver*>(to)->done.set_value(received);
    }
  };
  qmi_client_type client = nullptr;
  ASSERT_EQ(qmi_client_init_instance(&object, 0xFFFF, store, &receiver, nullptr, 4, &client), 0);
  for (const uint8_t status : Bytes{0, 1}) {
    const Bytes request{1, 4, 0, 2, 0, 0, 0, 2, 1, 0, status};
    Bytes response(11);
    EXPECT_EQ(qmi_client_send_msg_sync(client, 3, request.data(), 11, response.data(), 11, 9), 0);
    EXPECT_EQ(response, kSucceeded);
  }
  EXPECT_EQ(receiver.done.get_future().get(), (Bytes{1, 1, 2, 4, 3}));
  EXPECT_EQ(qmi_client_release(client), QMI_NO_ERR);
}

TEST_F(ModemServicesTest, NetworkScansAreTakenOrFailAsConfigured) {
  EXPECT_EQ(nas_get_service_object_internal_v01(1, 0x198, 6), nullptr);
  const auto object = nas_get_service_object_internal_v01(1, 0x199, 6);
  for (const int32_t failure : {0, -9}) {
    write_state_file_text("modem.conf", failure == 0 ? "" : "fault.nas = result:-9");
    platform::reset_service_bus();
    qmi_client_type client = nullptr;
    ASSERT_EQ(qmi_client_init_instance(object, 0xFFFF, nullptr, nullptr, nullptr, 4, &client), 0);
    for (const auto& [id, size, answered] : {std::array{0x21u, 272u, 18040u}, {0x85u, 576u, 8u}}) {
      const Bytes request(size);
      std::vector<int32_t> answer(answered / 4, 5);
      EXPECT_EQ(
          qmi_client_send_msg_sync(client, id, request.data(), size, answer.data(), answered, 9),
          QMI_NO_ERR);
      EXPECT_EQ(answer[0], failure);
    }
    EXPECT_EQ(qmi_client_release(client), QMI_NO_ERR);
  }
}

// The data of the answer to a common request that is nothing but its number.
Bytes statistics_block(const std::string& conf, uint8_t request) {
  const auto service = platform::make_extension_service(parse_modem_conf(conf));
  Bytes message{1, 4, 0, 4, 0, 0, 0, 2, 4, 0, 0, 2, 0, 0, 0x10, 0x26, 2, request};
  message.resize(17 + 550);
  const Bytes answer = service(2, message).bytes;
  EXPECT_EQ(Bytes(answer.begin() + 17, answer.begin() + 25), Bytes(8));
  return {answer.begin() + 25, answer.begin() + 17 + 508};
}

TEST(StatisticsBlocks, HaveTheLayoutOfTheirVersion) {
  // Where the sections diag, cm and uim begin, and where the last one ends.
  const size_t layouts[][4] = {
      {26, 69, 127, 137},  {26, 93, 151, 161},  {50, 137, 195, 205},
      {50, 145, 203, 213}, {58, 153, 211, 221},
  };
  for (uint8_t version = 0; version < 5; ++version) {
    const auto& [diag, cm, uim, end] = layouts[version];
    const Bytes block = statistics_block(
        "stats.enable = 0\nstats.not_supported = 258\n"
        "stats.debug_version = " +
            std::to_string(version),
        20);
    EXPECT_EQ((Bytes{block[0], block[1], block[2], block[3]}), (Bytes{version, 0, 2, 1}));
    const Bytes marks{block[diag + 5], block[cm + 1], block[uim + 1], block[end - 4]};
    EXPECT_EQ(marks, (Bytes{2, 4, 5, 8})) << int{version};
    EXPECT_EQ(Bytes(block.begin() + static_cast<int>(end), block.end()), Bytes(500 - end));
  }
  const auto log_ids = [](const std::string& conf) {
    const Bytes block = statistics_block(conf, 27);
    return Bytes(block.begin(), block.begin() + 8);
  };
  EXPECT_EQ(log_ids(""), (Bytes{2, 0, 0x00, 0x11, 0x01, 0x11, 0, 0}));
  EXPECT_EQ(log_ids("stats.log_ids = 0xB123, 1 65535"), (Bytes{3, 0, 0x23, 0xB1, 1, 0, 255, 255}));
  EXPECT_EQ(log_ids("stats.log_ids = none"), Bytes(8));
}

TEST(ModemConfRows, BadStatisticsValuesAreNamed) {
  const std::string longest_value = "stats.1.0 = " + std::string(1400, '0') + "\n";
  std::string bad_lines =
      "rat.2 = 9\nrat.0 = lte\nstats.debug_version = 5\nstats.enable = 2\nstats.log_ids =\n"
      "stats.not_supported = -1\nstats.log_ids = 65536\nstats.82 = 01\nstats.82.2 = 01\n"
      "stats.82.-1 = 01\nstats.82.0.0 = 01\nstats.0x.0 = 01\nstats.5g.0 = 01\nstats.82.0 =\n"
      "stats.4294967296.0 = 01\nstats.82.0 = 0\nstats.82.0 = 0 1\nstats.82.0 = +1\n"
      "vs.indication.10000 = 00\nvs.indication. = 00\nvs.indication.0004 = xx\nstats.log_ids =";
  for (int i = 0; i < 250; ++i) {
    bad_lines += " 1";
  }
  bad_lines += "\n" + longest_value;
  bad_lines.insert(bad_lines.size() - 1, "00");
  const auto count = std::count(bad_lines.begin(), bad_lines.end(), '\n');
  testing::internal::CaptureStderr();
  const auto conf = parse_modem_conf(bad_lines + longest_value);
  const std::string complaints = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(complaints.begin(), complaints.end(), '\n'), count) << complaints;
  ASSERT_EQ(conf.stats_overrides.size(), 1u);
  EXPECT_EQ(conf.stats_overrides[0].value.size(), 700u);
}

}  // namespace
}  // namespace kiv::test

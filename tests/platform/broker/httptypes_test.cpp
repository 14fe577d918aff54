// An answer serialised in one piece is byte for byte what Beast's serializer writes.
#include <gtest/gtest.h>
#include <tuqvu/broker/httptypes.h>

#include <sstream>
#include <string>

using namespace tuqvu::broker;

namespace {

std::string beastWire(Response response) {
  std::ostringstream out;
  out << response;
  return out.str();
}

std::string oneWire(Response response) {
  std::string out = "left over from the previous answer";
  serializeResponse(response, out);
  return out;
}

Response prepared(Response response, unsigned version, bool keepAlive) {
  response.version(version);
  response.keep_alive(keepAlive);
  response.prepare_payload();
  return response;
}

}  // namespace

TEST(SerializeResponse, AJsonAnswerIsWhatBeastWrites) {
  Response response =
      prepared(jsonResponse(http::status::ok, R"({"jsonrpc":"2.0","id":1,"result":1})"), 11, true);
  response.set(http::field::set_cookie, "session=abc; HttpOnly");
  EXPECT_EQ(oneWire(response), beastWire(response));
  EXPECT_EQ(oneWire(response).rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
}

TEST(SerializeResponse, AnEmptyBodyAnUnusualStatusAndHttp10AreWhatBeastWrites) {
  EXPECT_EQ(oneWire(prepared(textResponse(http::status::too_many_requests, ""), 10, false)),
            beastWire(prepared(textResponse(http::status::too_many_requests, ""), 10, false)));
  Response empty{http::status::no_content, 11};
  empty = prepared(std::move(empty), 11, false);
  EXPECT_EQ(oneWire(empty), beastWire(empty));
}

TEST(SerializeResponse, AReasonOfItsOwnAndUnknownFieldsAreWhatBeastWrites) {
  Response response = prepared(htmlResponse(http::status::not_found, "<p>gone</p>"), 11, true);
  response.reason("Nowhere To Be Found");
  response.set("X-Odd-Field", "  spaced  value ");
  response.insert("X-Odd-Field", "second");
  EXPECT_EQ(oneWire(response), beastWire(response));
  EXPECT_NE(oneWire(response).find("HTTP/1.1 404 Nowhere To Be Found\r\n"), std::string::npos);
}

TEST(SerializeResponse, ABinaryBodyIsKeptWhole) {
  std::string body("a\0b\r\n\r\nc", 8);
  Response response =
      prepared(makeResponse(http::status::ok, "application/octet-stream", body), 11, true);
  const std::string wire = oneWire(response);
  EXPECT_EQ(wire, beastWire(response));
  EXPECT_EQ(wire.substr(wire.size() - body.size()), body);
}

// The playground server through its HTTP interface: a server runs in this
// process on a free port of 127.0.0.1 and is driven with cpp-httplib's client.
#include <gtest/gtest.h>
#include <httplib.h>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tools/library_session.h"
#include "tools/playground/playground_server.h"

namespace {

using nlohmann::json;

const std::string kPhoto = std::string(SEGCORE_SOURCE_DIR) + "/samples/coffee.png";
const std::string kRect = R"({"x1":65,"y1":50,"x2":485,"y2":392})";

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string pngHeader(uint32_t w, uint32_t h) {
  std::string b("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16);
  for (uint32_t v : {w, h}) {
    for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<char>((v >> s) & 0xFF));
  }
  return b + std::string("\x08\x02\0\0\0", 5);
}

std::string encode(const cv::Mat& image, const char* ext) {
  std::vector<unsigned char> buf;
  cv::imencode(ext, image, buf);
  return std::string(buf.begin(), buf.end());
}

class PlaygroundServer : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = new playground::Server();
    std::string error;
    ASSERT_TRUE(server_->loadPhoto(segtools::readPhoto(kPhoto), "coffee.png", &error)) << error;
    port_ = server_->bind(0);
    ASSERT_GT(port_, 0);
    thread_ = new std::thread([] { server_->listen(); });
  }
  static void TearDownTestSuite() {
    server_->stop();
    thread_->join();
    delete thread_;
    delete server_;
  }

  // Each case starts from a fresh context on the coffee photo.
  void SetUp() override {
    const auto r = post("/api/photo?name=coffee.png", readFile(kPhoto), "image/png");
    ASSERT_EQ(r.first, 200) << r.second;
  }

  static std::unique_ptr<httplib::Client> client() {
    auto c = std::make_unique<httplib::Client>("127.0.0.1", port_);
    c->set_read_timeout(120);
    c->set_write_timeout(120);
    return c;
  }
  static std::pair<int, std::string> post(const std::string& path, const std::string& body,
                                          const std::string& type = "application/json") {
    auto res = client()->Post(path.c_str(), body, type.c_str());
    if (!res) return {0, "no answer: " + httplib::to_string(res.error())};
    return {res->status, res->body};
  }
  static json postJson(const std::string& path, const std::string& body = "{}",
                       int expected = 200) {
    const auto r = post(path, body);
    EXPECT_EQ(r.first, expected) << path << ": " << r.second;
    return json::parse(r.second, nullptr, false);
  }
  static json state() {
    auto res = client()->Get("/api/state");
    EXPECT_TRUE(res);
    return res ? json::parse(res->body, nullptr, false) : json();
  }
  static cv::Mat getImage(const char* path) {
    auto res = client()->Get(path);
    if (!res || res->status != 200) return cv::Mat();
    return cv::imdecode(std::vector<unsigned char>(res->body.begin(), res->body.end()),
                        cv::IMREAD_UNCHANGED);
  }

  static playground::Server* server_;
  static std::thread* thread_;
  static int port_;
};

playground::Server* PlaygroundServer::server_ = nullptr;
std::thread* PlaygroundServer::thread_ = nullptr;
int PlaygroundServer::port_ = 0;

TEST_F(PlaygroundServer, ServesOnlyItsPageAndApiToItsOwnHost) {
  auto c = client();
  auto page = c->Get("/");
  ASSERT_TRUE(page);
  EXPECT_EQ(page->status, 200);
  EXPECT_NE(page->body.find("<script src=\"/page.js\">"), std::string::npos);
  for (const char* path : {"/page.js", "/page.css"}) {
    auto r = c->Get(path);
    ASSERT_TRUE(r) << path;
    EXPECT_EQ(r->status, 200) << path;
    EXPECT_GT(r->body.size(), 100u) << path;
  }
  for (const char* path : {"/etc/passwd", "/../CMakeLists.txt", "/api/nothing", "/samples/coffee.png"}) {
    auto r = c->Get(path);
    ASSERT_TRUE(r) << path;
    EXPECT_EQ(r->status, 404) << path;
    EXPECT_TRUE(json::parse(r->body, nullptr, false).contains("error")) << path;
  }
  // A foreign host name or origin (a rebound name, another site) is refused.
  auto foreign = c->Get("/api/state", {{"Host", "evil.example:80"}});
  ASSERT_TRUE(foreign);
  EXPECT_EQ(foreign->status, 403);
  auto cross = c->Post("/api/reset", {{"Origin", "http://evil.example"}}, "", "text/plain");
  ASSERT_TRUE(cross);
  EXPECT_EQ(cross->status, 403);

  const json s = state();
  EXPECT_EQ(s["width"], 600);
  EXPECT_EQ(s["height"], 400);
  EXPECT_EQ(s["hasMask"], false);
  EXPECT_EQ(s["busy"], false);
}

TEST_F(PlaygroundServer, RectangleDeliversMaskPreviewAndCount) {
  const json r = postJson("/api/rect", kRect);
  ASSERT_TRUE(r["delivered"].get<bool>()) << r.dump();
  EXPECT_GT(r["millis"].get<double>(), 0.0);
  const json& s = r["state"];
  const cv::Mat mask = getImage("/api/mask.png");
  ASSERT_EQ(mask.type(), CV_8UC1);
  ASSERT_EQ(mask.size(), cv::Size(600, 400));
  EXPECT_EQ(s["objectPixels"].get<int>(), cv::countNonZero(mask));
  EXPECT_GT(cv::countNonZero(mask), 600 * 400 / 10);
  // Nothing outside the rectangle is object.
  cv::Mat outside = mask.clone();
  outside(cv::Rect(65, 50, 421, 343)).setTo(0);
  EXPECT_EQ(cv::countNonZero(outside), 0);
  // The preview is the photo with the library's opaque yellow outline.
  const cv::Mat preview = getImage("/api/preview.png");
  ASSERT_EQ(preview.type(), CV_8UC3);
  cv::Mat yellow;
  cv::inRange(preview, cv::Scalar(0, 255, 255), cv::Scalar(0, 255, 255), yellow);
  EXPECT_GT(cv::countNonZero(yellow), 500);
}

TEST_F(PlaygroundServer, HistoryFlagsFollowRequests) {
  struct Step {
    const char* path;
    std::string body;
    bool canUndo, canRedo, hasMask;
  };
  const std::string bgStroke = R"({"points":[[200,200],[300,210]],"object":false,"width":12})";
  const std::string editStroke =
      R"({"points":[[150,250],[200,250]],"object":false,"width":10,"edit":true})";
  // One recorded mask leaves canUndo false (undo would go back to the photo).
  const std::vector<Step> steps = {
      {"/api/rect", kRect, false, false, true},   {"/api/stroke", bgStroke, true, false, true},
      {"/api/undo", "", false, true, true},       {"/api/redo", "", true, false, true},
      {"/api/stroke", editStroke, true, false, true}, {"/api/undo", "", true, true, true},
      {"/api/reset", "", false, false, false},
      {"/api/loop", R"({"points":[[70,60],[480,60],[480,390],[70,390]]})", false, false, true},
  };
  std::vector<long> pixels;
  for (const Step& step : steps) {
    SCOPED_TRACE(std::string(step.path) + " " + step.body);
    const json r = postJson(step.path, step.body);
    const json& s = r["state"];
    EXPECT_EQ(s["canUndo"], step.canUndo);
    EXPECT_EQ(s["canRedo"], step.canRedo);
    EXPECT_EQ(s["hasMask"], step.hasMask);
    pixels.push_back(s["objectPixels"].get<long>());
  }
  // The background stroke over the cup removed object pixels; undo and redo
  // step between the two masks; the edit removed more; undoing it restores.
  EXPECT_LT(pixels[1], pixels[0]);
  EXPECT_EQ(pixels[2], pixels[0]);
  EXPECT_EQ(pixels[3], pixels[1]);
  EXPECT_LT(pixels[4], pixels[3]);
  EXPECT_EQ(pixels[5], pixels[3]);
  EXPECT_EQ(pixels[6], 0);
  EXPECT_GT(pixels[7], 0);
}

TEST_F(PlaygroundServer, EditWithoutMaskIsRefused) {
  const json r = postJson("/api/stroke",
                          R"({"points":[[10,10],[40,10]],"object":true,"width":5,"edit":true})",
                          409);
  EXPECT_NE(r["error"].get<std::string>().find("no mask"), std::string::npos);
}

TEST_F(PlaygroundServer, SecondRequestIsBusyAndCancelStopsTheCut) {
  EXPECT_EQ(post("/api/cancel", "").first, 409);  // nothing runs yet
  std::pair<int, std::string> answer;
  std::thread cut([&] { answer = post("/api/rect", kRect); });
  bool busy = false;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!busy && std::chrono::steady_clock::now() < deadline) {
    busy = state()["busy"].get<bool>();
    if (!busy) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_TRUE(busy) << "the rectangle request never showed as running";
  const auto second = post("/api/loop", R"({"points":[[10,10],[100,10],[100,100]]})");
  EXPECT_EQ(second.first, 409);
  EXPECT_TRUE(json::parse(second.second, nullptr, false).value("busy", false)) << second.second;
  EXPECT_EQ(post("/api/undo", "").first, 409);
  EXPECT_EQ(post("/api/cancel", "").first, 200);
  cut.join();
  ASSERT_EQ(answer.first, 200) << answer.second;
  const json r = json::parse(answer.second, nullptr, false);
  EXPECT_TRUE(r.value("cancelled", false)) << answer.second;
  // The photo was set up again: plain photo, empty history, ready for more.
  EXPECT_EQ(r["state"]["hasMask"], false);
  EXPECT_EQ(r["state"]["canUndo"], false);
  const json again = postJson("/api/rect", kRect);
  EXPECT_TRUE(again["delivered"].get<bool>()) << again.dump();
  EXPECT_GT(again["state"]["objectPixels"].get<long>(), 0);
}

TEST_F(PlaygroundServer, BadInputIsRefusedAndThePhotoStays) {
  ASSERT_TRUE(postJson("/api/rect", kRect)["delivered"].get<bool>());
  const json before = state();
  cv::Mat tiny(8, 8, CV_8UC3, cv::Scalar(10, 200, 30));
  const std::string coffee = readFile(kPhoto);
  struct Case {
    const char* label;
    std::string path, body, type;
    int status;
    const char* message;
  };
  const std::vector<Case> cases = {
      {"text as photo", "/api/photo", "hello, not an image", "text/plain", 415, "not a PNG or JPEG"},
      {"empty photo", "/api/photo", "", "image/png", 400, "empty"},
      {"0x0 PNG", "/api/photo", pngHeader(0, 0), "image/png", 400, "no pixels"},
      {"70 MP PNG", "/api/photo", pngHeader(10000, 7000), "image/png", 413, "60 megapixels"},
      {"cut-off PNG", "/api/photo", coffee.substr(0, 200), "image/png", 400, "decoded"},
      {"8x8 JPEG", "/api/photo", encode(tiny, ".jpg"), "image/jpeg", 400, "at least 16x16"},
      {"over 64 MB", "/api/photo", std::string((size_t{64} << 20) + 1, 'x'), "image/png", 413,
       "too large"},
      {"rect outside", "/api/rect", R"({"x1":10,"y1":10,"x2":600,"y2":300})", "application/json",
       400, "outside"},
      {"rect missing corner", "/api/rect", R"({"x1":10,"y1":10,"x2":100})", "application/json", 400,
       "whole numbers"},
      {"rect text corner", "/api/rect", R"({"x1":"a","y1":10,"x2":100,"y2":100})",
       "application/json", 400, "whole numbers"},
      {"malformed JSON", "/api/rect", "{\"x1\":", "application/json", 400, "not a JSON object"},
      {"loop of 2 points", "/api/loop", R"({"points":[[10,10],[50,50]]})", "application/json", 400,
       "at least 3"},
      {"loop point outside", "/api/loop", R"({"points":[[10,10],[50,-1],[90,90]]})",
       "application/json", 400, "outside"},
      {"loop bad point", "/api/loop", R"({"points":[[10,10],[50],[90,90]]})", "application/json",
       400, "pair"},
      {"stroke width 0", "/api/stroke", R"({"points":[[10,10]],"object":true,"width":0})",
       "application/json", 400, "width"},
      {"stroke without side", "/api/stroke", R"({"points":[[10,10]]})", "application/json", 400,
       "object"},
      {"stroke no points", "/api/stroke", R"({"points":[],"object":true})", "application/json",
       400, "points"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    const auto r = post(c.path, c.body, c.type);
    EXPECT_EQ(r.first, c.status) << r.second;
    const json body = json::parse(r.second, nullptr, false);
    ASSERT_TRUE(body.contains("error")) << r.second;
    EXPECT_NE(body["error"].get<std::string>().find(c.message), std::string::npos)
        << body["error"];
  }
  const json after = state();
  EXPECT_EQ(after["version"], before["version"]);
  EXPECT_EQ(after["objectPixels"], before["objectPixels"]);
  EXPECT_EQ(after["width"], 600);
}

TEST_F(PlaygroundServer, UploadedPhotoStartsANewContext) {
  ASSERT_TRUE(postJson("/api/rect", kRect)["delivered"].get<bool>());
  cv::Mat photo(48, 64, CV_8UC3, cv::Scalar(200, 200, 200));
  cv::circle(photo, {32, 24}, 12, cv::Scalar(20, 40, 160), cv::FILLED);
  for (const char* ext : {".png", ".jpg"}) {
    SCOPED_TRACE(ext);
    const auto r = post(std::string("/api/photo?name=dot") + ext, encode(photo, ext),
                        ext[1] == 'p' ? "image/png" : "image/jpeg");
    ASSERT_EQ(r.first, 200) << r.second;
    const json s = json::parse(r.second)["state"];
    EXPECT_EQ(s["width"], 64);
    EXPECT_EQ(s["height"], 48);
    EXPECT_EQ(s["hasMask"], false);
    EXPECT_EQ(s["canUndo"], false);
    const json cut = postJson("/api/rect", R"({"x1":8,"y1":4,"x2":56,"y2":44})");
    EXPECT_TRUE(cut["delivered"].get<bool>()) << cut.dump();
  }
}

}  // namespace

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
#include <thread>
#include <tuple>

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
  for (uint32_t v : {w, h})
    for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<char>((v >> s) & 0xFF));
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
    ASSERT_EQ(post("/api/photo?name=coffee.png", readFile(kPhoto), "image/png").first, 200);
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
  static json postJson(const std::string& path, const std::string& body = "{}", int expected = 200) {
    const auto r = post(path, body);
    EXPECT_EQ(r.first, expected) << path << ": " << r.second;
    return json::parse(r.second, nullptr, false);
  }
  static json state() {
    auto res = client()->Get("/api/state");
    return res ? json::parse(res->body, nullptr, false) : json();
  }
  static cv::Mat getImage(const char* path) {
    auto res = client()->Get(path);
    if (!res || res->status != 200) return cv::Mat();
    return cv::imdecode(std::vector<unsigned char>(res->body.begin(), res->body.end()), cv::IMREAD_UNCHANGED);
  }

  // Polls the state until a request shows as running (20 s at most).
  static bool waitUntilBusy() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
      if (state().value("busy", false)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }
  // Starts `path` on another thread, waits until the server shows it running,
  // cancels it and returns its answer.
  static json cancelWhileRunning(const std::string& path, const std::string& body,
                                 std::pair<int, std::string>* cancelAnswer = nullptr) {
    std::pair<int, std::string> answer;
    std::thread cut([&] { answer = post(path, body); });
    const bool busy = waitUntilBusy();
    const auto cancel = post("/api/cancel", "");
    if (cancelAnswer) *cancelAnswer = cancel;
    cut.join();
    EXPECT_TRUE(busy);
    EXPECT_EQ(answer.first, 200) << answer.second;
    return json::parse(answer.second, nullptr, false);
  }

  static inline playground::Server* server_ = nullptr;
  static inline std::thread* thread_ = nullptr;
  static inline int port_ = 0;
};

TEST_F(PlaygroundServer, ServesOnlyItsPageAndApiToItsOwnHost) {
  auto c = client();
  for (const char* path : {"/etc/passwd", "/../CMakeLists.txt", "/api/nothing", "/samples/coffee.png"}) {
    auto r = c->Get(path);
    EXPECT_TRUE(r && r->status == 404) << path;
  }
  // A foreign host name or origin (a rebound name, another site) is refused.
  auto foreign = c->Get("/api/state", {{"Host", "evil.example:80"}});
  auto cross = c->Post("/api/reset", {{"Origin", "http://evil.example"}}, "", "text/plain");
  EXPECT_TRUE(foreign && foreign->status == 403);
  EXPECT_TRUE(cross && cross->status == 403);
}

TEST_F(PlaygroundServer, RectangleDeliversMaskPreviewAndCount) {
  const json r = postJson("/api/rect", kRect);
  ASSERT_TRUE(r["delivered"].get<bool>()) << r.dump();
  const cv::Mat mask = getImage("/api/mask.png");
  ASSERT_TRUE(mask.type() == CV_8UC1 && mask.size() == cv::Size(600, 400));
  EXPECT_EQ(r["state"]["objectPixels"].get<int>(), cv::countNonZero(mask));
  EXPECT_GT(cv::countNonZero(mask), 600 * 400 / 10);
  cv::Mat outside = mask.clone();  // nothing outside the rectangle is object
  outside(cv::Rect(65, 50, 421, 343)).setTo(0);
  EXPECT_EQ(cv::countNonZero(outside), 0);
  // The preview is the photo with the library's opaque yellow outline.
  cv::Mat yellow;
  cv::inRange(getImage("/api/preview.png"), cv::Scalar(0, 255, 255), cv::Scalar(0, 255, 255), yellow);
  EXPECT_GT(cv::countNonZero(yellow), 500);
}

TEST_F(PlaygroundServer, HistoryFlagsFollowRequests) {
  const std::string bgStroke = R"({"points":[[200,200],[300,210]],"object":false,"width":12})";
  const std::string editStroke = R"({"points":[[150,250],[200,250]],"object":false,"width":10,"edit":true})";
  // One recorded mask leaves canUndo false (undo would go back to the photo).
  const struct {
    const char* path;
    std::string body;
    bool canUndo, canRedo, hasMask;
  } steps[] = {
      {"/api/rect", kRect, false, false, true},
      {"/api/stroke", bgStroke, true, false, true},
      {"/api/undo", "", false, true, true},
      {"/api/redo", "", true, false, true},
      {"/api/stroke", editStroke, true, false, true},
      {"/api/undo", "", true, true, true},
      {"/api/reset", "", false, false, false},
      {"/api/loop", R"({"points":[[70,60],[480,60],[480,390],[70,390]]})", false, false, true},
  };
  std::vector<long> px;
  for (const auto& step : steps) {
    SCOPED_TRACE(std::string(step.path) + " " + step.body);
    const json s = postJson(step.path, step.body)["state"];
    EXPECT_EQ(std::make_tuple(s["canUndo"], s["canRedo"], s["hasMask"]),
              std::make_tuple(step.canUndo, step.canRedo, step.hasMask));
    px.push_back(s["objectPixels"].get<long>());
  }
  // The background stroke removed object pixels; undo and redo step between
  // the two masks; the edit removed more; undoing it restores.
  EXPECT_EQ(px, (std::vector<long>{px[0], px[1], px[0], px[1], px[4], px[1], 0, px[7]}));
  EXPECT_TRUE(px[4] < px[1] && px[1] < px[0] && px[7] > 0);
}

TEST_F(PlaygroundServer, SecondRequestIsBusyAndCancelStopsTheCut) {
  EXPECT_EQ(post("/api/cancel", "").first, 409);  // nothing runs yet
  std::pair<int, std::string> answer;
  std::thread cut([&] { answer = post("/api/rect", kRect); });
  ASSERT_TRUE(waitUntilBusy()) << "the rectangle request never showed as running";
  const auto second = post("/api/loop", R"({"points":[[10,10],[100,10],[100,100]]})");
  EXPECT_EQ(second.first, 409);
  EXPECT_TRUE(json::parse(second.second, nullptr, false).value("busy", false)) << second.second;
  EXPECT_EQ(post("/api/undo", "").first, 409);
  EXPECT_EQ(post("/api/cancel", "").first, 200);
  cut.join();
  ASSERT_EQ(answer.first, 200) << answer.second;
  const json r = json::parse(answer.second, nullptr, false);
  EXPECT_TRUE(r.value("cancelled", false)) << answer.second;
  // Nothing was there before: plain photo, empty history, ready for more.
  EXPECT_TRUE(r["state"]["hasMask"] == false && r["state"]["canUndo"] == false) << answer.second;
  EXPECT_GT(postJson("/api/rect", kRect)["state"]["objectPixels"].get<long>(), 0);
}

TEST_F(PlaygroundServer, CancelledStrokeKeepsTheMaskAndTheHistory) {
  const std::string bgStroke = R"({"points":[[200,200],[300,210]],"object":false,"width":12})";
  postJson("/api/rect", kRect);
  postJson("/api/stroke", bgStroke);
  const json before = postJson("/api/loop", R"({"points":[[70,60],[480,60],[480,390],[70,390]]})")["state"];
  postJson("/api/undo", "");  // a redo step ahead, which the resumption must not take
  const json shown = state();
  ASSERT_TRUE(shown["canUndo"] == true && shown["canRedo"] == true) << shown.dump();
  const cv::Mat maskBefore = getImage("/api/mask.png");
  const cv::Mat previewBefore = getImage("/api/preview.png");

  std::pair<int, std::string> cancel;
  const json r = cancelWhileRunning("/api/stroke",
                                    R"({"points":[[100,100],[500,300]],"object":true,"width":30})", &cancel);
  EXPECT_EQ(cancel.first, 200) << cancel.second;
  ASSERT_TRUE(r.value("cancelled", false)) << r.dump();
  EXPECT_NE(r.value("message", "").find("history are kept"), std::string::npos) << r.dump();
  const json after = r["state"];
  EXPECT_EQ(std::make_tuple(after["hasMask"], after["canUndo"], after["canRedo"], after["objectPixels"],
                            after["version"]),
            std::make_tuple(shown["hasMask"], shown["canUndo"], shown["canRedo"], shown["objectPixels"],
                            shown["version"]));
  EXPECT_EQ(cv::norm(getImage("/api/mask.png"), maskBefore, cv::NORM_INF), 0.0);
  EXPECT_EQ(cv::norm(getImage("/api/preview.png"), previewBefore, cv::NORM_INF), 0.0);
  // The redo step is still the loop's mask, and cuts work again (the cancel
  // flag was cleared).
  EXPECT_EQ(postJson("/api/redo", "")["state"]["objectPixels"], before["objectPixels"]);
  postJson("/api/undo", "");
  const json next = postJson("/api/stroke", bgStroke);
  EXPECT_TRUE(next["delivered"].get<bool>()) << next.dump();
  EXPECT_FALSE(next["state"]["canRedo"].get<bool>());
}

TEST_F(PlaygroundServer, CancelledRectangleRebuildsTheWholeHistory) {
  // 34 recorded masks: more than the history holds (31 steps).
  postJson("/api/rect", kRect);
  std::vector<long> pixels{state()["objectPixels"].get<long>()};
  for (int i = 0; i < 33; ++i) {
    const int x = 80 + 12 * i;
    const std::string edit = "{\"points\":[[" + std::to_string(x) + ",80],[" + std::to_string(x) +
                             ",380]],\"object\":" + (i % 3 ? "false" : "true") +
                             ",\"width\":6,\"edit\":true}";
    pixels.push_back(postJson("/api/stroke", edit)["state"]["objectPixels"].get<long>());
  }
  for (int i = 0; i < 3; ++i) postJson("/api/undo", "");
  const json shown = state();
  const cv::Mat maskBefore = getImage("/api/mask.png");
  ASSERT_EQ(shown["objectPixels"].get<long>(), pixels[30]);

  const json r = cancelWhileRunning("/api/rect", R"({"x1":20,"y1":20,"x2":300,"y2":300})");
  ASSERT_TRUE(r.value("cancelled", false)) << r.dump();
  EXPECT_EQ(std::make_tuple(r["state"]["canUndo"], r["state"]["canRedo"], r["state"]["objectPixels"]),
            std::make_tuple(true, true, shown["objectPixels"]));
  EXPECT_EQ(cv::norm(getImage("/api/mask.png"), maskBefore, cv::NORM_INF), 0.0);
  // Redo reaches the newest mask; undo goes down through the 31 reachable
  // steps (recordings 4 to 34) and then to the plain photo, as before.
  for (int i = 31; i <= 33; ++i) EXPECT_EQ(postJson("/api/redo", "")["state"]["objectPixels"], pixels[i]);
  EXPECT_FALSE(state()["canRedo"].get<bool>());
  for (int i = 32; i >= 3; --i) {
    const json s = postJson("/api/undo", "")["state"];
    EXPECT_EQ(s["objectPixels"].get<long>(), pixels[i]) << "step " << i;
    EXPECT_EQ(s["canUndo"].get<bool>(), i > 3) << "step " << i;
  }
  EXPECT_FALSE(postJson("/api/undo", "")["state"]["hasMask"].get<bool>());
}

TEST_F(PlaygroundServer, AStalePageIsToldToReload) {
  const json s = state();
  const std::string view = s["photoId"].get<std::string>() + "." + std::to_string(s["version"].get<long>());
  const json r = postJson("/api/rect?view=" + view, kRect);
  const std::string newView =
      view.substr(0, view.find('.') + 1) + std::to_string(r["state"]["version"].get<long>());
  // Another page still showing the photo before that rectangle, and a page of
  // another photo (or of the server before a restart), are refused.
  for (const std::string& old :
       {view, std::string("1-1.") + std::to_string(r["state"]["version"].get<long>())}) {
    for (const char* path : {"/api/loop", "/api/undo", "/api/reset"}) {
      const json refused =
          postJson(std::string(path) + "?view=" + old, R"({"points":[[70,60],[480,60],[480,390]]})", 409);
      EXPECT_TRUE(refused.value("stale", false)) << path << refused.dump();
      EXPECT_NE(refused.value("error", "").find("Reload the page"), std::string::npos);
    }
  }
  EXPECT_EQ(state()["version"], r["state"]["version"]);  // nothing ran
  EXPECT_TRUE(postJson("/api/reset?view=" + newView, "")["state"]["hasMask"] == false);
}

TEST_F(PlaygroundServer, TransparentPhotoIsCompositedOnWhite) {
  cv::Mat rgba(40, 60, CV_8UC4, cv::Scalar(0, 0, 200, 255));
  rgba(cv::Rect(0, 0, 30, 40)).setTo(cv::Scalar(0, 0, 0, 0));       // transparent black
  rgba(cv::Rect(30, 0, 10, 40)).setTo(cv::Scalar(100, 0, 0, 128));  // half-transparent blue
  const json r =
      json::parse(post("/api/photo?name=t.png", encode(rgba, ".png"), "image/png").second, nullptr, false);
  ASSERT_TRUE(r["state"]["onWhite"].get<bool>()) << r.dump();
  const cv::Mat preview = getImage("/api/preview.png");
  ASSERT_EQ(preview.size(), cv::Size(60, 40));
  EXPECT_EQ(preview.at<cv::Vec3b>(5, 5), cv::Vec3b(255, 255, 255));
  // 100 * 128/255 + 255 * 127/255 = 177.2; 255 * 127/255 = 127.
  EXPECT_EQ(preview.at<cv::Vec3b>(5, 35), cv::Vec3b(177, 127, 127));
  EXPECT_EQ(preview.at<cv::Vec3b>(5, 50), cv::Vec3b(0, 0, 200));
  // An opaque four-channel file is not marked.
  cv::Mat opaque(40, 60, CV_8UC4, cv::Scalar(10, 20, 30, 255));
  EXPECT_FALSE(json::parse(post("/api/photo", encode(opaque, ".png"), "image/png").second)["state"]["onWhite"]
                   .get<bool>());
}

TEST(PlaygroundDecode, GreyAlphaAndSixteenBitFiles) {
  cv::Mat bgr;
  bool onWhite = true;
  std::string error;
  cv::Mat grey16(4, 4, CV_16UC1, cv::Scalar(257 * 40));
  ASSERT_TRUE(playground::decodePhoto(encode(grey16, ".png"), &bgr, &onWhite, &error)) << error;
  EXPECT_TRUE(bgr.type() == CV_8UC3 && !onWhite);
  EXPECT_EQ(bgr.at<cv::Vec3b>(2, 2), cv::Vec3b(40, 40, 40));
  cv::Mat rgba16(4, 4, CV_16UC4, cv::Scalar(0, 257 * 60, 0, 0));
  ASSERT_TRUE(playground::decodePhoto(encode(rgba16, ".png"), &bgr, &onWhite, &error)) << error;
  EXPECT_TRUE(onWhite);
  EXPECT_EQ(bgr.at<cv::Vec3b>(1, 1), cv::Vec3b(255, 255, 255));
  EXPECT_FALSE(playground::decodePhoto("\x89PNG\r\n\x1a\nnonsense", &bgr, &onWhite, &error));
  EXPECT_NE(error.find("could not be decoded"), std::string::npos);
}

TEST_F(PlaygroundServer, BadInputIsRefusedAndThePhotoStays) {
  const json edit =
      postJson("/api/stroke", R"({"points":[[10,10],[40,10]],"object":true,"width":5,"edit":true})", 409);
  EXPECT_NE(edit.value("error", "").find("no mask"), std::string::npos) << edit.dump();
  ASSERT_TRUE(postJson("/api/rect", kRect)["delivered"].get<bool>());
  const json before = state();
  const std::string js = "application/json";
  const struct {
    std::string path, body, type;
    int status;
    const char* message;
  } cases[] = {
      {"/api/photo", "hello, not an image", "text/plain", 415, "not a PNG or JPEG"},
      {"/api/photo", "", "image/png", 400, "empty"},
      {"/api/photo", pngHeader(0, 0), "image/png", 400, "no pixels"},
      {"/api/photo", pngHeader(10000, 7000), "image/png", 413, "60 megapixels"},
      {"/api/photo", readFile(kPhoto).substr(0, 200), "image/png", 400, "decoded"},
      {"/api/photo", encode(cv::Mat(8, 8, CV_8UC3, cv::Scalar::all(90)), ".jpg"), "image/jpeg", 400,
       "at least 16x16"},
      {"/api/photo", std::string((size_t{64} << 20) + 1, 'x'), "image/png", 413, "too large"},
      {"/api/rect", R"({"x1":10,"y1":10,"x2":600,"y2":300})", js, 400, "outside"},
      {"/api/rect", R"({"x1":"a","y1":10,"x2":100})", js, 400, "whole numbers"},
      {"/api/rect", "{\"x1\":", js, 400, "not a JSON object"},
      {"/api/loop", R"({"points":[[10,10],[50,50]]})", js, 400, "at least 3"},
      {"/api/loop", R"({"points":[[10,10],[50,-1],[90,90]]})", js, 400, "outside"},
      {"/api/loop", R"({"points":[[10,10],[50],[90,90]]})", js, 400, "pair"},
      {"/api/stroke", R"({"points":[[10,10]],"object":true,"width":0})", js, 400, "width"},
      {"/api/stroke", R"({"points":[[10,10]]})", js, 400, "object"},
      {"/api/stroke", R"({"points":[],"object":true})", js, 400, "points"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path + " " + c.body.substr(0, 40));
    const auto r = post(c.path, c.body, c.type);
    EXPECT_EQ(r.first, c.status) << r.second;
    EXPECT_NE(json::parse(r.second, nullptr, false).value("error", "").find(c.message), std::string::npos)
        << r.second;
  }
  const json after = state();
  EXPECT_EQ(after["version"], before["version"]);
  EXPECT_EQ(after["objectPixels"], before["objectPixels"]);
  EXPECT_EQ(after["width"], 600);
}

}  // namespace

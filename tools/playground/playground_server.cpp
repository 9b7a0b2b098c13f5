#include "tools/playground/playground_server.h"

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <chrono>
#include <exception>
#include <random>
#include <utility>
#include <vector>

#include "interface/segmentation_core.h"
#include "interface/veldse_marker.h"
#include "tools/playground/playground_page.h"

namespace playground {

using nlohmann::json;

struct Server::Snapshot {
  int width = 0;
  int height = 0;
  bool hasMask = false;
  bool canUndo = false;
  bool canRedo = false;
  long objectPixels = 0;
  long version = 0;
  double millis = 0.0;  // the library's time for the latest request
  std::string photoName;
  std::string photoId;
  bool onWhite = false;
  cv::Mat preview;  // BGR
  cv::Mat mask;     // 255 = object
  // PNG files, encoded on first demand.
  mutable std::mutex encodeMutex;
  mutable std::string previewPng;
  mutable std::string maskPng;
};

namespace {

constexpr int kBusyStatus = 409;
// Steps of the library's history that undo can reach (32 slots, one of them
// the plain photo's).
constexpr size_t kHistorySteps = 31;

// A mask as one bit per pixel, row-major; 12 MP take 1.5 MB.
std::vector<unsigned char> packMask(const cv::Mat& mask) {
  std::vector<unsigned char> bits((mask.total() + 7) / 8, 0);
  size_t i = 0;
  for (int y = 0; y < mask.rows; ++y) {
    const unsigned char* row = mask.ptr<unsigned char>(y);
    for (int x = 0; x < mask.cols; ++x, ++i) {
      if (row[x] != 0) bits[i >> 3] |= static_cast<unsigned char>(1u << (i & 7));
    }
  }
  return bits;
}

cv::Mat unpackMask(const std::vector<unsigned char>& bits, int width, int height) {
  cv::Mat mask(height, width, CV_8UC1);
  size_t i = 0;
  for (int y = 0; y < height; ++y) {
    unsigned char* row = mask.ptr<unsigned char>(y);
    for (int x = 0; x < width; ++x, ++i) row[x] = (bits[i >> 3] >> (i & 7)) & 1u ? 255 : 0;
  }
  return mask;
}

// 8-bit, 2 or 4 channels (grey or BGR with alpha) -> BGR over white.
cv::Mat compositeOnWhite(const cv::Mat& withAlpha, bool* anyTransparent) {
  std::vector<cv::Mat> planes;
  cv::split(withAlpha, planes);
  const cv::Mat alpha = planes.back();
  double lowest = 255.0;
  cv::minMaxLoc(alpha, &lowest);
  *anyTransparent = lowest < 255.0;
  cv::Mat colour;
  if (planes.size() == 2) {
    cv::merge(std::vector<cv::Mat>{planes[0], planes[0], planes[0]}, colour);
  } else {
    cv::merge(std::vector<cv::Mat>{planes[0], planes[1], planes[2]}, colour);
  }
  if (!*anyTransparent) return colour;
  cv::Mat out(colour.size(), CV_8UC3);
  for (int y = 0; y < colour.rows; ++y) {
    const unsigned char* c = colour.ptr<unsigned char>(y);
    const unsigned char* a = alpha.ptr<unsigned char>(y);
    unsigned char* o = out.ptr<unsigned char>(y);
    for (int x = 0; x < colour.cols; ++x) {
      for (int k = 0; k < 3; ++k) {
        // c * a + 255 * (1 - a), rounded, with a in 0..255.
        o[3 * x + k] = static_cast<unsigned char>((c[3 * x + k] * a[x] + 255 * (255 - a[x]) + 127) / 255);
      }
    }
  }
  return out;
}

std::string errorJson(const std::string& message) { return json{{"error", message}}.dump(); }

void sendJson(httplib::Response& res, int status, const std::string& body) {
  res.status = status;
  res.set_header("Cache-Control", "no-store");
  res.set_content(body, "application/json");
}

std::string sizeText(int width, int height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

uint32_t bigEndian32(const std::string& b, size_t at) {
  return (static_cast<uint32_t>(static_cast<unsigned char>(b[at])) << 24) |
         (static_cast<uint32_t>(static_cast<unsigned char>(b[at + 1])) << 16) |
         (static_cast<uint32_t>(static_cast<unsigned char>(b[at + 2])) << 8) |
         static_cast<uint32_t>(static_cast<unsigned char>(b[at + 3]));
}

int bigEndian16(const std::string& b, size_t at) {
  return (static_cast<unsigned char>(b[at]) << 8) | static_cast<unsigned char>(b[at + 1]);
}

// Reads an int field; false when missing or not a whole number.
bool intField(const json& body, const char* key, int* out) {
  auto it = body.find(key);
  if (it == body.end() || !it->is_number_integer()) return false;
  const long long v = it->get<long long>();
  if (v < -1000000000LL || v > 1000000000LL) return false;
  *out = static_cast<int>(v);
  return true;
}

}  // namespace

bool decodePhoto(const std::string& bytes, cv::Mat* bgr, bool* onWhite, std::string* error) {
  *onWhite = false;
  const std::vector<unsigned char> data(bytes.begin(), bytes.end());
  // Of the two formats only PNG carries transparency; JPEG is decoded in
  // colour so that its EXIF orientation is applied.
  const bool png = bytes.size() >= 8 && bytes.compare(0, 8, "\x89PNG\r\n\x1a\n", 8) == 0;
  cv::Mat decoded = cv::imdecode(data, png ? cv::IMREAD_UNCHANGED : cv::IMREAD_COLOR);
  if (decoded.empty()) {
    *error = "the file could not be decoded as an image";
    return false;
  }
  if (decoded.depth() == CV_16U) decoded.convertTo(decoded, CV_8U, 1.0 / 257.0);
  if (decoded.depth() != CV_8U) {
    *error = "the image has an unusual sample format; save it as an 8-bit PNG or a JPEG";
    return false;
  }
  switch (decoded.channels()) {
    case 1:
      cv::cvtColor(decoded, *bgr, cv::COLOR_GRAY2BGR);
      return true;
    case 3:
      *bgr = decoded;
      return true;
    case 2:
    case 4:
      *bgr = compositeOnWhite(decoded, onWhite);
      return true;
    default:
      *error = "the image has " + std::to_string(decoded.channels()) + " channels";
      return false;
  }
}

bool readImageHeader(const std::string& bytes, int* width, int* height, std::string* error) {
  static const char kPng[] = "\x89PNG\r\n\x1a\n";
  if (bytes.size() >= 8 && bytes.compare(0, 8, kPng, 8) == 0) {
    // Signature, then the IHDR chunk: length, "IHDR", width, height.
    if (bytes.size() < 24 || bytes.compare(12, 4, "IHDR") != 0) {
      *error = "the PNG file is cut short or has no image header";
      return false;
    }
    const uint32_t w = bigEndian32(bytes, 16);
    const uint32_t h = bigEndian32(bytes, 20);
    // PNG sizes go up to 2^31 - 1; larger values are not a valid file.
    if (w > 0x7FFFFFFFu || h > 0x7FFFFFFFu) {
      *error = "the PNG header holds an impossible size";
      return false;
    }
    *width = static_cast<int>(w);
    *height = static_cast<int>(h);
    return true;
  }
  if (bytes.size() >= 3 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
      static_cast<unsigned char>(bytes[1]) == 0xD8 && static_cast<unsigned char>(bytes[2]) == 0xFF) {
    // Walk the segments up to the first start-of-frame marker.
    size_t pos = 2;
    while (pos + 4 <= bytes.size()) {
      if (static_cast<unsigned char>(bytes[pos]) != 0xFF) break;
      const int marker = static_cast<unsigned char>(bytes[pos + 1]);
      if (marker == 0xFF) {  // fill byte
        ++pos;
        continue;
      }
      if (marker == 0xD8 || marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) {
        pos += 2;  // markers without a length
        continue;
      }
      const int length = bigEndian16(bytes, pos + 2);
      if (length < 2) break;
      const bool frame = marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 &&
                         marker != 0xCC;
      if (frame) {
        if (pos + 9 > bytes.size()) break;
        *height = bigEndian16(bytes, pos + 5);
        *width = bigEndian16(bytes, pos + 7);
        return true;
      }
      if (marker == 0xDA || marker == 0xD9) break;  // scan data before any frame
      pos += 2 + static_cast<size_t>(length);
    }
    *error = "the JPEG file is cut short or has no frame header";
    return false;
  }
  *error = "not a PNG or JPEG image";
  return false;
}

Server::Server(Limits limits) : limits_(limits) {
  std::random_device random;
  serverTag_ = random() & 0xFFFFFFu;
  // A cut occupies one worker; idle keep-alive connections give theirs back
  // after a second, so a cancel always finds a free one.
  http_.new_task_queue = [] { return new httplib::ThreadPool(16); };
  http_.set_keep_alive_timeout(1);
  http_.set_read_timeout(30);
  http_.set_payload_max_length(limits_.maxUploadBytes);
  routes();
}

Server::~Server() {
  stop();
  session_.reset();
}

bool Server::loadPhoto(const cv::Mat& bgr, const std::string& name, std::string* error,
                       bool onWhite) {
  if (bgr.empty() || bgr.type() != CV_8UC3) {
    *error = "the photo is empty or not an 8-bit colour image";
    return false;
  }
  if (bgr.cols < limits_.minSide || bgr.rows < limits_.minSide) {
    *error = "the photo is " + sizeText(bgr.cols, bgr.rows) + "; at least " +
             sizeText(limits_.minSide, limits_.minSide) + " is needed";
    return false;
  }
  if (static_cast<double>(bgr.cols) * bgr.rows > limits_.maxMegapixels * 1e6) {
    *error = "the photo is " + sizeText(bgr.cols, bgr.rows) + ", above " +
             std::to_string(static_cast<int>(limits_.maxMegapixels)) + " megapixels";
    return false;
  }
  photo_ = bgr;
  photoName_ = name;
  photoOnWhite_ = onWhite;
  photoId_ = std::to_string(serverTag_) + "-" + std::to_string(++photoCount_);
  history_ = History();
  setUpPhoto();
  publish(0.0);
  return true;
}

int Server::bind(int port) {
  if (port == 0) {
    port_ = http_.bind_to_any_port("127.0.0.1");
  } else {
    port_ = http_.bind_to_port("127.0.0.1", port) ? port : -1;
  }
  return port_;
}

bool Server::listen() { return http_.listen_after_bind(); }

void Server::stop() {
  if (http_.is_running()) http_.stop();
}

void Server::setUpPhoto() {
  session_.reset();  // one context at a time: the old one ends first
  session_ = std::make_unique<segtools::LibrarySession>(photo_);
}

void Server::publish(double millis) {
  auto s = std::make_shared<Snapshot>();
  s->width = session_->width();
  s->height = session_->height();
  s->hasMask = session_->hasMask();
  s->canUndo = canUndo() != 0;
  s->canRedo = canRedo() != 0;
  s->objectPixels = s->hasMask ? cv::countNonZero(session_->mask()) : 0;
  s->millis = millis;
  s->photoName = photoName_;
  s->photoId = photoId_;
  s->onWhite = photoOnWhite_;
  // The session replaces its images after each request rather than writing
  // into them, so sharing them is safe.
  s->preview = session_->preview();
  s->mask = session_->mask();
  std::lock_guard<std::mutex> lock(stateMutex_);
  s->version = ++version_;
  snapshot_ = std::move(s);
}

std::shared_ptr<const Server::Snapshot> Server::snapshot() const {
  std::lock_guard<std::mutex> lock(stateMutex_);
  return snapshot_;
}

std::string Server::stateJson(const Snapshot& s, bool busy) const {
  return json{{"width", s.width},
              {"height", s.height},
              {"photo", s.photoName},
              {"photoId", s.photoId},
              {"onWhite", s.onWhite},
              {"hasMask", s.hasMask},
              {"canUndo", s.canUndo},
              {"canRedo", s.canRedo},
              {"objectPixels", s.objectPixels},
              {"version", s.version},
              {"millis", s.millis},
              {"busy", busy},
              {"strokeWidth", segtools::defaultStrokeWidth(s.width, s.height)},
              {"limits",
               {{"maxUploadBytes", limits_.maxUploadBytes},
                {"maxMegapixels", limits_.maxMegapixels},
                {"maxStrokeWidth", limits_.maxStrokeWidth}}}}
      .dump();
}

template <typename Work>
void Server::exclusive(httplib::Response& res, bool cancellable, Work work) {
  {
    std::lock_guard<std::mutex> lock(stateMutex_);
    if (running_) {
      sendJson(res, kBusyStatus,
               json{{"error", "Another request is still running: wait for it or cancel it."},
                    {"busy", true}}
                   .dump());
      return;
    }
    running_ = true;
    cancellable_ = cancellable;
    cancelRequested_ = false;
  }
  Reply reply;
  try {
    reply = work();
  } catch (const std::exception& e) {
    // Whatever failed, the server must not stay busy for ever.
    reply.status = 500;
    reply.json = errorJson(std::string("The request failed: ") + e.what());
  }
  {
    std::lock_guard<std::mutex> lock(stateMutex_);
    running_ = false;
    cancellable_ = false;
    cancelRequested_ = false;
  }
  requestDone_.notify_all();
  sendJson(res, reply.status, reply.json);
}

bool Server::closeCancelWindow() {
  std::lock_guard<std::mutex> lock(stateMutex_);
  cancellable_ = false;
  return cancelRequested_;
}

void Server::handleCancel(httplib::Response& res) {
  std::unique_lock<std::mutex> lock(stateMutex_);
  if (!running_ || !cancellable_) {
    sendJson(res, 409, errorJson("There is no cut running to cancel."));
    return;
  }
  if (cancelRequested_) {
    sendJson(res, 200, json{{"cancelling", true}}.dump());
    return;
  }
  cancelRequested_ = true;
  // Only the cancel flag: the context, and with it the history, stays (an
  // exitSegmentation as well would tear it down). A rectangle clears the flag
  // while it builds its new context, so it is set again until the request
  // closes its cancel window; the store is one atomic byte.
  while (running_ && cancellable_) {
    cancelSegmentation();
    requestDone_.wait_for(lock, std::chrono::milliseconds(20));
  }
  sendJson(res, 200, json{{"cancelling", true}}.dump());
}

bool Server::staleView(const httplib::Request& req, Reply* refusal) const {
  if (!req.has_param("view")) return false;
  const auto s = snapshot();
  const std::string shown = s ? s->photoId + "." + std::to_string(s->version) : std::string();
  if (req.get_param_value("view") == shown) return false;
  refusal->status = 409;
  refusal->json =
      json{{"stale", true},
           {"error",
            "This page is out of date: the photo or its result was changed in another tab, or "
            "the server was restarted. Reload the page to go on from what is there now."}}
          .dump();
  return true;
}

Server::Reply Server::outcomeReply(const std::string& what,
                                   const segtools::RequestOutcome& outcome) {
  publish(outcome.millis);
  const auto s = snapshot();
  Reply r;
  r.json = json{{"request", what},
                {"delivered", outcome.delivered},
                {"note", outcome.note},
                {"millis", outcome.millis},
                {"state", json::parse(stateJson(*s, false))}}
               .dump();
  return r;
}

Server::Reply Server::runMarks(const std::string& kind, const std::string& body) {
  Reply bad;
  bad.status = 400;
  if (body.size() > limits_.maxJsonBytes) {
    bad.status = 413;
    bad.json = errorJson("the request body is larger than " +
                         std::to_string(limits_.maxJsonBytes >> 20) + " MB");
    return bad;
  }
  const json req = json::parse(body, nullptr, false);
  if (req.is_discarded() || !req.is_object()) {
    bad.json = errorJson("the request body is not a JSON object");
    return bad;
  }
  const int w = session_->width();
  const int h = session_->height();
  segtools::EditRequest request;
  std::string error;
  if (kind == "rect") {
    int x1, y1, x2, y2;
    if (!intField(req, "x1", &x1) || !intField(req, "y1", &y1) || !intField(req, "x2", &x2) ||
        !intField(req, "y2", &y2)) {
      bad.json = errorJson("a rectangle needs whole numbers x1, y1, x2, y2");
      return bad;
    }
    if (!segtools::makeRectangle(w, h, x1, y1, x2, y2, &request, &error)) {
      bad.json = errorJson(error);
      return bad;
    }
    return runCut(kind, true, false, request);
  }
  // Loops and strokes: a list of [x, y] points inside the photo.
  auto it = req.find("points");
  if (it == req.end() || !it->is_array() || it->empty()) {
    bad.json = errorJson("\"points\" must be a non-empty list of [x, y] pairs");
    return bad;
  }
  if (it->size() > limits_.maxPoints) {
    bad.status = 413;
    bad.json = errorJson("too many points (at most " + std::to_string(limits_.maxPoints) + ")");
    return bad;
  }
  std::vector<cv::Point> points;
  points.reserve(it->size());
  for (const json& p : *it) {
    if (!p.is_array() || p.size() != 2 || !p[0].is_number_integer() ||
        !p[1].is_number_integer()) {
      bad.json = errorJson("every point must be a pair of whole numbers [x, y]");
      return bad;
    }
    const long long x = p[0].get<long long>();
    const long long y = p[1].get<long long>();
    if (x < 0 || y < 0 || x >= w || y >= h) {
      bad.json = errorJson("point (" + std::to_string(x) + ", " + std::to_string(y) +
                           ") lies outside the " + sizeText(w, h) + " photo");
      return bad;
    }
    points.emplace_back(static_cast<int>(x), static_cast<int>(y));
  }
  if (kind == "loop") {
    if (!segtools::makeLoop(w, h, points, &request, &error)) {
      bad.json = errorJson(error);
      return bad;
    }
    return runCut(kind, false, false, request);
  }
  // Strokes.
  auto object = req.find("object");
  if (object == req.end() || !object->is_boolean()) {
    bad.json = errorJson("a stroke needs \"object\": true or false");
    return bad;
  }
  int width = segtools::defaultStrokeWidth(w, h);
  if (req.contains("width") &&
      (!intField(req, "width", &width) || width < 1 || width > limits_.maxStrokeWidth)) {
    bad.json = errorJson("the stroke width must be a whole number from 1 to " +
                         std::to_string(limits_.maxStrokeWidth));
    return bad;
  }
  bool edit = false;
  if (req.contains("edit")) {
    if (!req["edit"].is_boolean()) {
      bad.json = errorJson("\"edit\" must be true or false");
      return bad;
    }
    edit = req["edit"].get<bool>();
  }
  if (!segtools::makeStroke(w, h, points, object->get<bool>(), width, &request, &error)) {
    bad.json = errorJson(error);
    return bad;
  }
  if (edit) {
    if (!session_->hasMask()) {
      Reply none;
      none.status = 409;
      none.json = errorJson("there is no mask to edit yet: make a selection first");
      return none;
    }
    return runCut("edit", false, true, request);
  }
  return runCut(kind, false, false, request);
}

Server::Reply Server::runCut(const std::string& kind, bool rectangle, bool edit,
                             const segtools::EditRequest& request) {
  const segtools::RequestOutcome outcome =
      edit ? session_->cutOut(request.points, request.markers, request.mode)
           : segtools::runRequest(*session_, request);
  const bool cancelled = closeCancelWindow();
  bool kept = true;  // the previous mask and history are as before the request
  if (outcome.delivered) {
    if (rectangle) history_ = History();
    rememberMask();
    // A cancel that came as the result was being delivered leaves its flag,
    // which would stop the next cut at once.
    if (cancelled) VELDSEMarker::resetMarkers();
  } else if (rectangle) {
    // The rectangle began a new context: the old history is rebuilt.
    kept = restoreHistory();
  } else if (!edit) {
    session_->resumeAfterStop();
  }
  // A stopped cut leaves the history and the mask on screen as they were; the
  // published version stays, so pages need not load the same pictures again
  // and other tabs stay current.
  const bool unchanged = !outcome.delivered && !rectangle;
  if (!unchanged) publish(outcome.millis);
  const auto s = snapshot();
  Reply r;
  json answer{{"request", kind},
              {"delivered", outcome.delivered},
              {"note", outcome.note},
              {"millis", outcome.millis},
              {"state", json::parse(stateJson(*s, false))}};
  if (cancelled) {
    answer["cancelled"] = !outcome.delivered;
    answer["message"] =
        outcome.delivered ? "The cut had finished before the cancel reached it; its result is shown."
        : kept ? "Cancelled: the previous result and the whole history are kept."
               : "Cancelled, but the history could not be rebuilt; the plain photo is shown.";
  }
  r.json = answer.dump();
  return r;
}

void Server::rememberMask() {
  auto& steps = history_.steps;
  steps.resize(history_.current);  // recording drops the redo steps
  steps.push_back(packMask(session_->mask()));
  if (steps.size() > kHistorySteps) steps.erase(steps.begin());
  history_.current = steps.size();
}

bool Server::restoreHistory() {
  // The stopped rectangle may have left its cancel flag set.
  VELDSEMarker::resetMarkers();
  const History wanted = std::move(history_);
  history_ = History();
  bool ok = true;
  for (const auto& step : wanted.steps) {
    ok = ok && session_->recordMask(unpackMask(step, session_->width(), session_->height())).delivered;
  }
  for (size_t i = wanted.current; ok && i < wanted.steps.size(); ++i) session_->undo();
  if (!ok) {
    session_->reset();
    return false;
  }
  history_ = wanted;
  return true;
}

void Server::handlePhoto(const httplib::Request& req, httplib::Response& res) {
  // Checked before the library is involved, so a bad file leaves the current
  // photo as it is.
  if (req.body.empty()) {
    sendJson(res, 400, errorJson("the upload is empty"));
    return;
  }
  int w = 0;
  int h = 0;
  std::string error;
  if (!readImageHeader(req.body, &w, &h, &error)) {
    sendJson(res, 415, errorJson(error + "; open a PNG or JPEG photo"));
    return;
  }
  if (w == 0 || h == 0) {
    sendJson(res, 400, errorJson("the image is " + sizeText(w, h) + ": it has no pixels"));
    return;
  }
  if (static_cast<double>(w) * h > limits_.maxMegapixels * 1e6) {
    sendJson(res, 413,
             errorJson("the photo is " + sizeText(w, h) + ", above " +
                       std::to_string(static_cast<int>(limits_.maxMegapixels)) + " megapixels"));
    return;
  }
  cv::Mat bgr;
  bool onWhite = false;
  if (!decodePhoto(req.body, &bgr, &onWhite, &error)) {
    sendJson(res, 400, errorJson(error));
    return;
  }
  // Decoding turns a JPEG by its EXIF orientation, which may swap the sides.
  const bool sizeOk = (bgr.cols == w && bgr.rows == h) || (bgr.cols == h && bgr.rows == w);
  if (!sizeOk) {
    sendJson(res, 400, errorJson("the file could not be decoded as an image"));
    return;
  }
  std::string name = req.has_param("name") ? req.get_param_value("name") : "upload";
  if (name.size() > 200) name.resize(200);
  exclusive(res, false, [&] {
    Reply r;
    std::string why;
    if (!loadPhoto(bgr, name, &why, onWhite)) {
      r.status = 400;
      r.json = errorJson(why);
      return r;
    }
    const auto s = snapshot();
    r.json = json{{"request", "photo"}, {"state", json::parse(stateJson(*s, false))}}.dump();
    return r;
  });
}

void Server::routes() {
  // Only requests addressed to this server by its loopback name are served
  // (a page elsewhere cannot reach it through a rebound host name).
  http_.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
    const std::string host = req.get_header_value("Host");
    const std::string port = std::to_string(port_);
    const bool hostOk = host == "127.0.0.1:" + port || host == "localhost:" + port;
    const std::string origin = req.get_header_value("Origin");
    const bool originOk = origin.empty() || origin == "http://127.0.0.1:" + port ||
                          origin == "http://localhost:" + port;
    if (hostOk && originOk) return httplib::Server::HandlerResponse::Unhandled;
    sendJson(res, 403, errorJson("this server answers only its own page on 127.0.0.1"));
    return httplib::Server::HandlerResponse::Handled;
  });
  http_.set_error_handler([](const httplib::Request&, httplib::Response& res) {
    if (!res.body.empty()) return;
    std::string message = "bad request";
    if (res.status == 404) message = "not found";
    if (res.status == 413) message = "the request is too large (photos up to 64 MB)";
    if (res.status == 405) message = "method not allowed";
    sendJson(res, res.status, errorJson(message));
  });

  auto page = [](const char* body, const char* type) {
    return [body, type](const httplib::Request&, httplib::Response& res) {
      res.set_header("Cache-Control", "no-store");
      res.set_header("X-Content-Type-Options", "nosniff");
      res.set_content(body, type);
    };
  };
  http_.Get("/", page(kPageHtml, "text/html; charset=utf-8"));
  http_.Get("/page.css", page(kPageCss, "text/css; charset=utf-8"));
  http_.Get("/page.js", page(kPageJs, "text/javascript; charset=utf-8"));

  http_.Get("/api/state", [this](const httplib::Request&, httplib::Response& res) {
    bool busy = false;
    {
      std::lock_guard<std::mutex> lock(stateMutex_);
      busy = running_;
    }
    const auto s = snapshot();
    if (!s) {
      sendJson(res, 503, errorJson("no photo yet"));
      return;
    }
    sendJson(res, 200, stateJson(*s, busy));
  });
  auto image = [this](bool mask) {
    return [this, mask](const httplib::Request&, httplib::Response& res) {
      const auto s = snapshot();
      if (!s) {
        sendJson(res, 503, errorJson("no photo yet"));
        return;
      }
      std::string png;
      {
        std::lock_guard<std::mutex> lock(s->encodeMutex);
        std::string& cached = mask ? s->maskPng : s->previewPng;
        if (cached.empty()) {
          std::vector<unsigned char> buf;
          if (mask) {
            // Default settings, as cv::imwrite uses for segment_photo's mask.png.
            cv::imencode(".png", s->mask, buf);
          } else {
            cv::imencode(".png", s->preview, buf, {cv::IMWRITE_PNG_COMPRESSION, 1});
          }
          cached.assign(buf.begin(), buf.end());
        }
        png = cached;
      }
      res.set_header("Cache-Control", "no-store");
      res.set_header("X-Segcore-Version", std::to_string(s->version));
      if (mask) res.set_header("Content-Disposition", "inline; filename=\"mask.png\"");
      res.set_content(png, "image/png");
    };
  };
  http_.Get("/api/preview.png", image(false));
  http_.Get("/api/mask.png", image(true));

  for (const char* kind : {"rect", "loop", "stroke"}) {
    http_.Post(std::string("/api/") + kind,
               [this, kind](const httplib::Request& req, httplib::Response& res) {
                 exclusive(res, true, [&] {
                   Reply refusal;
                   if (staleView(req, &refusal)) return refusal;
                   return runMarks(kind, req.body);
                 });
               });
  }
  http_.Post("/api/undo", [this](const httplib::Request& req, httplib::Response& res) {
    exclusive(res, false, [&] {
      Reply refusal;
      if (staleView(req, &refusal)) return refusal;
      // The library steps back unless it is at the bottom already.
      if (history_.current > 0) --history_.current;
      return outcomeReply("undo", session_->undo());
    });
  });
  http_.Post("/api/redo", [this](const httplib::Request& req, httplib::Response& res) {
    exclusive(res, false, [&] {
      Reply refusal;
      if (staleView(req, &refusal)) return refusal;
      const segtools::RequestOutcome outcome = session_->redo();
      if (outcome.delivered && history_.current < history_.steps.size()) ++history_.current;
      return outcomeReply("redo", outcome);
    });
  });
  http_.Post("/api/reset", [this](const httplib::Request& req, httplib::Response& res) {
    exclusive(res, false, [&] {
      Reply refusal;
      if (staleView(req, &refusal)) return refusal;
      session_->reset();
      history_ = History();
      return outcomeReply("reset", segtools::RequestOutcome());
    });
  });
  http_.Post("/api/cancel",
             [this](const httplib::Request&, httplib::Response& res) { handleCancel(res); });
  http_.Post("/api/photo", [this](const httplib::Request& req, httplib::Response& res) {
    handlePhoto(req, res);
  });
}

}  // namespace playground

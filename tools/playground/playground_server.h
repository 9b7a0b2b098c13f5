// The playground's HTTP server: one page (served from memory) and a small JSON
// API that drives the library through its exported functions, one request at a
// time, as the app's native bridge does (tools/library_session.h).
//
// API (every answer is JSON unless stated; failures are 4xx with {"error": ...},
// the message in words for the page to show):
//   GET  /                    the page (also /page.css, /page.js)
//   GET  /api/state           photo id and size, history flags, object pixels, busy
//   GET  /api/preview.png     the library's preview (photo with its outline)
//   GET  /api/mask.png        the mask on screen, 255 = object
//   POST /api/photo           body: a PNG or JPEG file; a new context
//   POST /api/rect            {"x1","y1","x2","y2"} inclusive corners
//   POST /api/loop            {"points": [[x, y], ...]}
//   POST /api/stroke          {"points", "object": bool, "width": px, "edit": bool}
//                             edit = change the mask on screen without a cut
//   POST /api/undo | /api/redo | /api/reset
//   POST /api/cancel          stops the running cut; its request answers
//                             {"cancelled": true} with the previous mask and
//                             the whole history kept
// A request that arrives while another one runs is answered 409 "busy".
// The page adds ?view=PHOTOID.VERSION to the requests that act on what it
// shows; when another tab or a restarted server has changed the photo or its
// result since, the request is refused with {"stale": true} and nothing runs.
#ifndef SEGCORE_TOOLS_PLAYGROUND_SERVER_H
#define SEGCORE_TOOLS_PLAYGROUND_SERVER_H

#include <httplib.h>

#include <opencv2/core.hpp>

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tools/edit_requests.h"
#include "tools/library_session.h"

namespace playground {

struct Limits {
  size_t maxUploadBytes = size_t{64} << 20;  // a photo file
  double maxMegapixels = 60.0;               // a photo's width * height / 1e6
  size_t maxJsonBytes = size_t{4} << 20;     // a request body of marks
  size_t maxPoints = 200000;                 // points of one loop or stroke
  int minSide = 16;                          // smallest photo side
  int maxStrokeWidth = 1000;
};

// Decodes a PNG or JPEG file into an 8-bit BGR photo. A photo with
// transparency is composited on white (*onWhite = true), as the library takes
// opaque pixels only; 16-bit files are scaled to 8 bits. False with a message
// when the bytes cannot be decoded.
bool decodePhoto(const std::string& bytes, cv::Mat* bgr, bool* onWhite, std::string* error);

// Reads the size from a PNG or JPEG header without decoding the pixels.
// Returns false (with a message) when the bytes are neither, or the header is
// cut short.
bool readImageHeader(const std::string& bytes, int* width, int* height, std::string* error);

class Server {
 public:
  explicit Server(Limits limits = Limits());
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Sets up a photo (BGR, 8-bit, 3 channels) in a new context; false with a
  // message when it is too small or too large. Call before listening.
  // `onWhite`: the file's transparent parts were composited on white.
  bool loadPhoto(const cv::Mat& bgr, const std::string& name, std::string* error,
                 bool onWhite = false);

  // Binds to 127.0.0.1 (port 0: any free port). Returns the port, or -1.
  int bind(int port);
  // Serves until stop(); call after bind().
  bool listen();
  void stop();

 private:
  struct Snapshot;
  struct Reply {
    int status = 200;
    std::string json;
  };

  // The masks of the library's history, packed one bit per pixel, kept so
  // that a rectangle - which starts a new context, and so a new history -
  // that is cancelled or gives nothing can put the history back as it was.
  // Follows the library's rules: at most 31 steps reachable, recording drops
  // the redo steps; `current` steps are done (0: the plain photo).
  struct History {
    std::vector<std::vector<unsigned char>> steps;
    size_t current = 0;
  };

  void routes();
  // Runs one library request unless another one runs (then: 409 busy).
  // `work` fills the reply; when `cancellable`, /api/cancel may stop it until
  // the work calls closeCancelWindow().
  template <typename Work>
  void exclusive(httplib::Response& res, bool cancellable, Work work);
  // Ends the time in which a cancel may arrive; true when one did.
  bool closeCancelWindow();
  void handleCancel(httplib::Response& res);
  void handlePhoto(const httplib::Request& req, httplib::Response& res);
  // True, with the refusal to send, when the request's ?view= names another
  // photo or result than the one on screen; false when it names this one or
  // there is none.
  bool staleView(const httplib::Request& req, Reply* refusal) const;
  Reply runMarks(const std::string& kind, const std::string& body);
  // A cut or an edit, and what a cancel or a fruitless cut leaves behind.
  Reply runCut(const std::string& kind, bool rectangle, bool edit,
               const segtools::EditRequest& request);
  Reply outcomeReply(const std::string& what, const segtools::RequestOutcome& outcome);
  // Replaces the context with a fresh one for photo_ (a new photo). Called
  // only by the request that holds the library.
  void setUpPhoto();
  // Records the mask on screen as the newest step of history_.
  void rememberMask();
  // Rebuilds the library's history from history_ on the fresh context that a
  // stopped rectangle left; false (and an empty history) if it cannot.
  bool restoreHistory();
  // Copies the session's results for the GET handlers (holding the library).
  void publish(double millis);
  std::shared_ptr<const Snapshot> snapshot() const;
  std::string stateJson(const Snapshot& s, bool busy) const;

  Limits limits_;
  httplib::Server http_;
  int port_ = -1;

  // The library: touched only by the request that set running_.
  cv::Mat photo_;
  std::string photoName_;
  bool photoOnWhite_ = false;
  // Names the photo for the pages: a random start (a restarted server is told
  // apart) and a count of the photos loaded.
  std::string photoId_;
  unsigned long serverTag_ = 0;
  unsigned long photoCount_ = 0;
  History history_;
  std::unique_ptr<segtools::LibrarySession> session_;

  mutable std::mutex stateMutex_;
  bool running_ = false;
  bool cancellable_ = false;
  bool cancelRequested_ = false;
  std::condition_variable requestDone_;  // running_ went false
  std::shared_ptr<const Snapshot> snapshot_;
  long version_ = 0;
};

}  // namespace playground

#endif

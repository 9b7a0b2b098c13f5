// playground: a local web page to try the library on a photo.
// Usage: playground [PHOTO] [--port N]   (default samples/coffee.png, port 8017;
//        port 0 takes any free port). Serves on 127.0.0.1 only and prints the
//        address; Ctrl-C stops it.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "tools/playground/playground_server.h"

int main(int argc, char** argv) {
  std::string photoPath = SEGCORE_DEFAULT_PHOTO;
  int port = 8017;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--port" && i + 1 < argc) {
      char* end = nullptr;
      const long v = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || v < 0 || v > 65535) {
        std::fprintf(stderr, "playground: --port wants a number from 0 to 65535\n");
        return 2;
      }
      port = static_cast<int>(v);
    } else if (a == "-h" || a == "--help") {
      std::printf("usage: playground [PHOTO] [--port N]\n");
      return 0;
    } else if (!a.empty() && a[0] != '-') {
      photoPath = a;
    } else {
      std::fprintf(stderr, "playground: unknown option '%s'\n", a.c_str());
      return 2;
    }
  }
  std::ifstream file(photoPath, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  cv::Mat photo;
  bool onWhite = false;
  std::string why;
  if (!file || !playground::decodePhoto(bytes, &photo, &onWhite, &why)) {
    std::fprintf(stderr, "playground: cannot read '%s' as an image\n", photoPath.c_str());
    return 1;
  }
  // SIGINT and SIGTERM are taken by a thread of their own (the server's
  // threads inherit the blocked mask), which stops the server.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  playground::Server server;
  std::string error;
  const std::string name = photoPath.substr(photoPath.find_last_of('/') + 1);
  if (!server.loadPhoto(photo, name, &error, onWhite)) {
    std::fprintf(stderr, "playground: %s\n", error.c_str());
    return 1;
  }
  const int bound = server.bind(port);
  if (bound < 0) {
    std::fprintf(stderr, "playground: cannot listen on 127.0.0.1:%d\n", port);
    return 1;
  }
  std::thread stopper([&server, signals] {
    int sig = 0;
    sigwait(&signals, &sig);
    server.stop();
  });
  stopper.detach();
  std::printf("playground: http://127.0.0.1:%d/ (%s, %dx%d)\n", bound, name.c_str(), photo.cols,
              photo.rows);
  std::fflush(stdout);
  const bool ok = server.listen();
  return ok ? 0 : 1;
}

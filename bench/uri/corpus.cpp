// Generator of the URI benchmark corpus. The mix follows what a scanner meets
// in mail and web pages: mostly http(s) URLs with paths and queries, some
// with ports, user names, dotted addresses, escapes and fragments, other
// schemes, and references without a scheme (bare host names, absolute and
// relative paths).
#include "corpus.h"

#include <cstdio>

namespace vrk::bench {
namespace {

// xorshift32: small, fast and identical everywhere.
class Random {
 public:
  explicit Random(uint32_t seed) : state_(seed ? seed : 1) {}
  uint32_t Next() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 17;
    state_ ^= state_ << 5;
    return state_;
  }
  uint32_t Below(uint32_t n) { return Next() % n; }
  bool Percent(uint32_t p) { return Below(100) < p; }
  template <size_t N>
  const char* Pick(const char* const (&items)[N]) {
    return items[Below(N)];
  }

 private:
  uint32_t state_;
};

const char* const kWords[] = {
    "news", "mail", "shop", "cloud", "static", "cdn", "login", "account", "secure", "update", "download",
    "files", "images", "media", "blog", "forum", "support", "docs", "api", "portal", "search", "video",
    "maps", "store", "bank", "payment", "service", "online", "global", "data", "assets", "app",
};
const char* const kDomains[] = {
    "example", "contoso", "fabrikam", "northwind", "adventure-works", "tailspin", "wingtip", "litware",
    "proseware", "lucerne", "woodgrove", "fourthcoffee", "alpineski", "coho", "margies-travel", "humongous",
};
const char* const kTlds[] = {"com", "org", "net", "de", "co.uk", "com.br", "es", "fr", "info", "io", "ru", "jp"};
const char* const kSegments[] = {
    "index.html", "en", "us", "products", "item", "2024", "05", "article", "view", "images", "logo.png",
    "css", "main.css", "js", "app.min.js", "download", "setup.exe", "user", "profile", "settings",
    "wp-content", "uploads", "cgi-bin", "login.php", "page", "category", "a;jsessionid=9F3C2A",
};
const char* const kKeys[] = {"id", "q", "lang", "page", "ref", "utm_source", "utm_medium", "session", "token",
                             "redirect", "s", "sort", "v"};
const char* const kValues[] = {"1", "42", "en", "true", "home", "newsletter", "email", "abc123", "x%20y",
                               "caf%C3%A9", "a+b", "2024-05-01", "%2Fpath%2Fto", "DEADBEEF"};

std::string Host(Random& r) {
  if (r.Percent(5)) {
    char ip[20];
    std::snprintf(ip, sizeof ip, "%u.%u.%u.%u", r.Below(223) + 1, r.Below(256), r.Below(256), r.Below(254) + 1);
    return ip;
  }
  std::string host;
  if (r.Percent(70)) host = r.Percent(50) ? "www." : std::string(r.Pick(kWords)) + ".";
  host += r.Pick(kDomains);
  host += '.';
  host += r.Pick(kTlds);
  return host;
}

std::string Path(Random& r) {
  std::string path;
  const uint32_t segments = r.Below(6);
  for (uint32_t i = 0; i < segments; ++i) {
    path += '/';
    path += r.Pick(kSegments);
  }
  if (segments == 0 || r.Percent(20)) path += '/';
  return path;
}

std::string Query(Random& r) {
  std::string query = "?";
  const uint32_t pairs = r.Below(4) + 1;
  for (uint32_t i = 0; i < pairs; ++i) {
    if (i) query += '&';
    query += r.Pick(kKeys);
    query += '=';
    query += r.Pick(kValues);
  }
  return query;
}

std::string Url(Random& r) {
  const uint32_t kind = r.Below(100);
  std::string url;
  if (kind < 72) {
    url = r.Percent(60) ? "https://" : "http://";
    if (r.Percent(4)) url += r.Percent(50) ? "user@" : "user:secret@";
    url += Host(r);
    if (r.Percent(8)) url += r.Percent(50) ? ":8080" : ":443";
    url += Path(r);
    if (r.Percent(40)) url += Query(r);
    if (r.Percent(10)) url += "#section-2";
  } else if (kind < 78) {
    url = "ftp://" + Host(r) + "/pub" + Path(r);
  } else if (kind < 81) {
    url = std::string("mailto:") + r.Pick(kWords) + "@" + Host(r);
  } else if (kind < 82) {
    url = "file:///C:/Windows/" + std::string(r.Pick(kSegments));
  } else if (kind < 92) {
    // Bare host names, as written in text and mail.
    url = Host(r) + (r.Percent(70) ? Path(r) : "");
    if (r.Percent(20)) url += Query(r);
  } else if (kind < 97) {
    url = Path(r);
    if (r.Percent(30)) url += Query(r);
  } else {
    url = std::string(r.Pick(kSegments)) + Path(r);
  }
  return url;
}

}  // namespace

std::vector<std::string> MakeUriCorpus(uint32_t count, uint32_t seed) {
  Random r(seed);
  std::vector<std::string> corpus;
  corpus.reserve(count);
  for (uint32_t i = 0; i < count; ++i) corpus.push_back(Url(r));
  return corpus;
}

}  // namespace vrk::bench

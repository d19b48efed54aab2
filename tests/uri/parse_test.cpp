// URI_Parse: tables of references and the records they give, grouped by the
// rule they exercise. Single bytes of each character class are swept in
// class_test.cpp; these tables cover the rules around them.
#include <gtest/gtest.h>

#include "uri_test_util.h"

namespace {

using vrk::test::Check;
using vrk::test::FirstReading;

TEST(UriParse, ReferenceForms) {
  EXPECT_EQ(URI_Parse(nullptr), nullptr);
  Check({
      {"", "{}"},
      {"http://host.example/a/b;p?x=1#top",
       "scheme='http' host='host.example' path='/a/b;p' query='x=1' fragment='top'"},
      {"http://host.example?q", "scheme='http' host='host.example' query='q'"},
      {"file:///etc/hosts", "scheme='file' path='/etc/hosts'"},
      {"file:/etc/hosts", "scheme='file' path='/etc/hosts'"},
      {"mailto:a@b.example", "scheme='mailto' opaque='a@b.example'"},
      {"news:comp.lang?x#y", "scheme='news' opaque='comp.lang?x' fragment='y'"},
      // A "host:port" without "//" is a scheme and an opaque part.
      {"host.example:8080", "scheme='host.example' opaque='8080'"},
      {"http://host.example/?#f", "scheme='http' host='host.example' path='/' query='' fragment='f'"},
      {"http://host.example/a#", "scheme='http' host='host.example' path='/a' fragment=''"},
      {"http://host.example/a#b#c", "null"},
      {"http://", "null"},
      {"http:", "null"},
      {"http:/", "scheme='http' path='/'"},
      // Two backslashes stand for "//", but a backslash after the authority
      // starts no path.
      {"http:\\\\host.example/a", "scheme='http' host='host.example' path='/a'"},
      {"http:\\\\host.example\\a", "null"},
      {"http:\\host.example", "null"},
      {"http:/\\x", "scheme='http' path='/\\\\x'"},
      {"HTTP://Host.Example/A", "scheme='HTTP' host='Host.Example' path='/A'"},
  });
}

TEST(UriParse, DefaultPrefix) {
  Check({
      {"host.example/a", "scheme='http' host='host.example' path='/a'"},
      {"www.host.example:81/a?b", "scheme='www.host.example' opaque='81/a?b'"},
      {"user@host.example/a", "scheme='http' host='host.example' userinfo='user' path='/a'"},
      {"10.1.2.3/x", "scheme='http' host='10.1.2.3' path='/x'"},
      // Only the first "." of the host counts, and it must not be the last byte.
      {"localhost/a", "null"},
      {"host./a", "null"},
      {"a.b./x", "scheme='http' host='a.b.' path='/x'"},
      {"http://localhost/a", "scheme='http' host='localhost' path='/a'"},
      // Without a host there is nothing to check.
      {"/a/b", "scheme='http' path='/a/b'"},
      {"host.example#f", "scheme='http' reg_name='host.example' fragment='f'"},
      {"localhost#f", "scheme='http' reg_name='localhost' fragment='f'"},
      // "//host" read behind "http://" is an empty authority and a path.
      {"//host.example/a", "scheme='http' path='//host.example/a'"},
      {"?q", "null"},
      {"a/b", "null"},
  });
}

TEST(UriParse, TrailingText) {
  Check({
      {"http://host.example/a \r\n", "scheme='http' host='host.example' path='/a'"},
      {"http://host.example/a\xC2\xA0", "scheme='http' host='host.example' path='/a'"},
      {"http://host.example/a\xE2\x80\xAF \xEF\xBB\xBF", "scheme='http' host='host.example' path='/a'"},
      {"http://host.example/a\xC2", "null"},
      {"http://host.example/a\xE2\x80", "null"},
      {"http://host.example/a\xC2\xA1", "null"},
      {"http://host.example/a b", "null"},
      {" http://host.example/", "null"},
      // White space right after the authority turns it into a registry name.
      {"http://host.example ", "scheme='http' reg_name='host.example'"},
      {"http://host.example:80 ", "scheme='http' reg_name='host.example:80' port=80"},
  });
}

TEST(UriParse, EscapesAndComponents) {
  Check({
      {"http://h.example/?%41", "scheme='http' host='h.example' path='/' query='A'"},
      {"http://h.example/?a%4g", "null"},  // "%4g" is no escape: the query ends before it
      {"http://h.example/?a%00b", "scheme='http' host='h.example' path='/' query='a'"},
      {"http://h.example/?a+b%2Bc", "scheme='http' host='h.example' path='/' query='a+b+c'"},
      {"http://h.example/%7e%7E", "scheme='http' host='h.example' path='/~~'"},
      {"http://h.example/a%2fb", "scheme='http' host='h.example' path='/a/b'"},
      {"s:#x", "null"},
      {"s:?x", "scheme='s' opaque='?x'"},
      {"s:%2Fx", "scheme='s' opaque='/x'"},
      {"http://h.example/a/?q", "scheme='http' host='h.example' path='/a/' query='q'"},
      {"http://h.example//", "scheme='http' host='h.example' path='//'"},
  });
}

TEST(UriParse, Authority) {
  Check({
      {"http://@host.example", "scheme='http' host='host.example' userinfo=''"},
      {"http://a%40b@host.example", "scheme='http' host='host.example' userinfo='a'"},
      {"http://%00a@host.example", "scheme='http' host='host.example' userinfo=''"},
      {"http://256.300.1.1:8", "scheme='http' host='256.300.1.1' port=8"},
      {"http://1.2.3./", "scheme='http' host='1.2.3.' path='/'"},
      {"http://1.2.3.4a.example", "scheme='http' host='1.2.3.4a.example'"},
      // Each server failure falls back to a registry name.
      {"http://1.2.3.4.5", "scheme='http' reg_name='1.2.3.4.5'"},
      {"http://a-.b", "scheme='http' reg_name='a-.b'"},
      {"http://.a", "scheme='http' reg_name='.a'"},
      {"http://host.123", "scheme='http' reg_name='host.123'"},
      {"http://1.2.3", "scheme='http' reg_name='1.2.3'"},
      {"http://12", "scheme='http' reg_name='12'"},
      {"http://1.2.3.4.", "scheme='http' reg_name='1.2.3.4.'"},
      {"http://1.2.3-a.example", "scheme='http' reg_name='1.2.3-a.example'"},
      {"http://-a.example", "scheme='http' reg_name='-a.example'"},
      // The top label is checked only when it follows a "." or starts the host.
      {"http://x.1-a", "scheme='http' host='x.1-a'"},
      {"http://a-", "scheme='http' host='a-'"},
      {"http://a.b-", "scheme='http' host='a.b-'"},
      {"http://a.%31b", "scheme='http' host='a.1b'"},
      {"http://a.example:8%30/", "scheme='http' host='a.example' port=80 path='/'"},
      {"http://a.example:", "scheme='http' host='a.example'"},
      {"http://a.example:%41", "scheme='http' reg_name='a.example:A'"},
      {"http://a.example:80x", "scheme='http' reg_name='a.example:80x' port=80"},
      // Ports of ten digits and more wrap around modulo 2^32.
      {"http://a.example:2147483648", "scheme='http' host='a.example' port=-2147483648"},
      {"http://a.example:4294967297", "scheme='http' host='a.example' port=1"},
      {"http:///x", "scheme='http' path='/x'"},
      {"http://u@/x", "scheme='http' reg_name='u@' path='/x'"},
      {"http://a b", "null"},
      {"http://u@a..b", "scheme='http' reg_name='u@a..b'"},
  });
}

// What the first reading of a reference without a scheme gives, seen by
// refusing the copy behind "http://".
TEST(UriParse, RelativeReferences) {
  Check({
      {"a/b?q#f", "path='a/b' query='q' fragment='f'"},
      {"a%2Fb/c", "path='a/b/c'"},
      {"/a\\b", "path='/a\\\\b'"},
      {"//host.example:81/x", "host='host.example' port=81 path='/x'"},
      {"//host.example x", "null"},
      {"?q", "query='q'"},
      {"#f", "fragment='f'"},
      {":x", "null"},
      {"\\\\host.example", "null"},
      {"a\\b", "null"},
      {"host.example ", "path='host.example'"},
  }, FirstReading);
}

}  // namespace

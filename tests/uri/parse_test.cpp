// URI_Parse: tables of references and the records they give, grouped by the
// rule they exercise. Expected records are written as Describe() prints
// them: absent fields are left out, port only when not 0.
#include <gtest/gtest.h>

#include <string>

#include "uri_test_util.h"

namespace {

using vrk::test::FirstReading;
using vrk::test::Parsed;

struct Case {
  const char* input;
  const char* expected;
};

void Check(const Case* begin, const Case* end, std::string (*parse)(const std::string&) = Parsed) {
  for (const Case* c = begin; c != end; ++c) {
    SCOPED_TRACE(c->input);
    EXPECT_EQ(parse(c->input), c->expected);
  }
}

#define CHECK_TABLE(table, ...) Check(std::begin(table), std::end(table) __VA_OPT__(, ) __VA_ARGS__)

TEST(UriParse, AbsentAndEmptyText) {
  EXPECT_EQ(URI_Parse(nullptr), nullptr);
  EXPECT_EQ(Parsed(""), "{}");
}

TEST(UriParse, ReferenceForms) {
  const Case kCases[] = {
      {"http://host.example/a/b;p?x=1#top",
       "scheme='http' host='host.example' path='/a/b;p' query='x=1' fragment='top'"},
      {"http://user:pw@host.example:8080/a", "scheme='http' host='host.example' userinfo='user:pw' port=8080 path='/a'"},
      {"ftp://host.example", "scheme='ftp' host='host.example'"},
      {"http://host.example?q", "scheme='http' host='host.example' query='q'"},
      {"file:///etc/hosts", "scheme='file' path='/etc/hosts'"},
      {"file:/etc/hosts", "scheme='file' path='/etc/hosts'"},
      {"mailto:a@b.example", "scheme='mailto' opaque='a@b.example'"},
      {"urn:a:b", "scheme='urn' opaque='a:b'"},
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
  };
  CHECK_TABLE(kCases);
}

TEST(UriParse, DefaultPrefix) {
  const Case kCases[] = {
      {"host.example/a", "scheme='http' host='host.example' path='/a'"},
      {"host.example", "scheme='http' host='host.example'"},
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
      {"#f", "null"},
      {"a/b", "null"},
  };
  CHECK_TABLE(kCases);
}

TEST(UriParse, TrailingText) {
  const Case kCases[] = {
      {"http://host.example/a \r\n", "scheme='http' host='host.example' path='/a'"},
      {"http://host.example/a\t \t", "scheme='http' host='host.example' path='/a'"},
      {"http://host.example/a\xC2\xA0", "scheme='http' host='host.example' path='/a'"},
      {"http://host.example/a\xE2\x80\xAF \xEF\xBB\xBF", "scheme='http' host='host.example' path='/a'"},
      {"http://host.example/a\xC2", "null"},
      {"http://host.example/a\xE2\x80", "null"},
      {"http://host.example/a\xC2\xA1", "null"},
      {"http://host.example/a b", "null"},
      {"http://host.example/a\v", "null"},
      {" http://host.example/", "null"},
      // White space right after the authority turns it into a registry name.
      {"http://host.example ", "scheme='http' reg_name='host.example'"},
      {"http://host.example:80 ", "scheme='http' reg_name='host.example:80' port=80"},
  };
  CHECK_TABLE(kCases);
}

TEST(UriParse, Components) {
  const Case kCases[] = {
      {"http://h.example/?%41", "scheme='http' host='h.example' path='/' query='A'"},
      {"http://h.example/?a%4g", "null"},  // "%4g" is no escape: the query ends before it
      {"http://h.example/?a%00b", "scheme='http' host='h.example' path='/' query='a'"},
      {"http://h.example/?a+b%2Bc", "scheme='http' host='h.example' path='/' query='a+b+c'"},
      {"http://h.example/%7e%7E", "scheme='http' host='h.example' path='/~~'"},
      // The query stops at unwise characters, the fragment takes them.
      {"http://h.example/?a[1]", "null"},
      {"http://h.example/#a[1]{}|^\\`", "scheme='http' host='h.example' path='/' fragment='a[1]{}|^\\\\`'"},
      {"http://h.example/?a/b?c:d@e", "scheme='http' host='h.example' path='/' query='a/b?c:d@e'"},
      {"a+b:x", "scheme='a+b' opaque='x'"},
      {"a.b-c:x", "scheme='a.b-c' opaque='x'"},
      {"1abc:x", "null"},
      {"s:x/y", "scheme='s' opaque='x/y'"},
      {"s:#x", "null"},
      {"s:?x", "scheme='s' opaque='?x'"},
      {"s:%2Fx", "scheme='s' opaque='/x'"},
      {"http://h.example/a;p=1;q/b", "scheme='http' host='h.example' path='/a;p=1;q/b'"},
      {"http://h.example/a\\b", "scheme='http' host='h.example' path='/a\\\\b'"},
      {"http://h.example/a/?q", "scheme='http' host='h.example' path='/a/' query='q'"},
      {"http://h.example//", "scheme='http' host='h.example' path='//'"},
      {"http://h.example/a%2fb", "scheme='http' host='h.example' path='/a/b'"},
      {"http://h.example/a\x80", "null"},
      {"s:x\x80", "null"},
      {"http://h.example/#x\xff", "null"},
  };
  CHECK_TABLE(kCases);
}

TEST(UriParse, Authority) {
  const Case kCases[] = {
      {"http://host.example:8080/x", "scheme='http' host='host.example' port=8080 path='/x'"},
      {"http://user:pw@host.example", "scheme='http' host='host.example' userinfo='user:pw'"},
      {"http://@host.example", "scheme='http' host='host.example' userinfo=''"},
      {"http://a%40b@host.example", "scheme='http' host='host.example' userinfo='a'"},
      {"http://a\x01" "b@host.example", "scheme='http' host='host.example' userinfo='a\\x01b'"},
      {"http://%00a@host.example", "scheme='http' host='host.example' userinfo=''"},
      {"http://10.1.2.3", "scheme='http' host='10.1.2.3'"},
      {"http://256.300.1.1:8", "scheme='http' host='256.300.1.1' port=8"},
      {"http://1.2.3./", "scheme='http' host='1.2.3.' path='/'"},
      {"http://1.2.3.4a.example", "scheme='http' host='1.2.3.4a.example'"},
      {"http://1.2.3.4%41.example", "scheme='http' host='1.2.3.4A.example'"},
      {"http://1.2.3.4.a", "scheme='http' host='1.2.3.4.a'"},
      {"http://1.a", "scheme='http' host='1.a'"},
      // Each server failure falls back to a registry name.
      {"http://1.2.3.4.5", "scheme='http' reg_name='1.2.3.4.5'"},
      {"http://a..b", "scheme='http' reg_name='a..b'"},
      {"http://a-.b", "scheme='http' reg_name='a-.b'"},
      {"http://a.-b", "scheme='http' reg_name='a.-b'"},
      {"http://.a", "scheme='http' reg_name='.a'"},
      {"http://1..2", "scheme='http' reg_name='1..2'"},
      {"http://host.123", "scheme='http' reg_name='host.123'"},
      {"http://1.2.3", "scheme='http' reg_name='1.2.3'"},
      {"http://12", "scheme='http' reg_name='12'"},
      {"http://12a", "scheme='http' reg_name='12a'"},
      {"http://1.2.3.4.", "scheme='http' reg_name='1.2.3.4.'"},
      {"http://1.2.3-a.example", "scheme='http' reg_name='1.2.3-a.example'"},
      {"http://1.2.3.4-a", "scheme='http' reg_name='1.2.3.4-a'"},
      {"http://-a.example", "scheme='http' reg_name='-a.example'"},
      // The top label is checked only when it follows a "." or starts the host.
      {"http://x.1-a", "scheme='http' host='x.1-a'"},
      {"http://a-", "scheme='http' host='a-'"},
      {"http://a.b-", "scheme='http' host='a.b-'"},
      {"http://a.b.", "scheme='http' host='a.b.'"},
      {"http://a.%31b", "scheme='http' host='a.1b'"},
      {"http://a.example:%38%30", "scheme='http' host='a.example' port=80"},
      {"http://a.example:8%30/", "scheme='http' host='a.example' port=80 path='/'"},
      {"http://a.example:", "scheme='http' host='a.example'"},
      {"http://a.example:/x", "scheme='http' host='a.example' path='/x'"},
      {"http://a.example:%41", "scheme='http' reg_name='a.example:A'"},
      {"http://a.example:80x", "scheme='http' reg_name='a.example:80x' port=80"},
      {"http://a.example:123456789", "scheme='http' host='a.example' port=123456789"},
      {"http://a.example#x", "scheme='http' reg_name='a.example' fragment='x'"},
      {"http:///x", "scheme='http' path='/x'"},
      {"http://u@/x", "scheme='http' reg_name='u@' path='/x'"},
      {"http://a b", "null"},
      {"http://Host.Example", "scheme='http' host='Host.Example'"},
      {"http://a,b;c=d", "scheme='http' reg_name='a,b;c=d'"},
      {"http://u@a..b", "scheme='http' reg_name='u@a..b'"},
  };
  CHECK_TABLE(kCases);
}

// Ports of ten digits and more wrap around modulo 2^32.
TEST(UriParse, LongPortsWrap) {
  const Case kCases[] = {
      {"http://a.example:2147483647", "scheme='http' host='a.example' port=2147483647"},
      {"http://a.example:2147483648", "scheme='http' host='a.example' port=-2147483648"},
      {"http://a.example:4294967297", "scheme='http' host='a.example' port=1"},
  };
  CHECK_TABLE(kCases);
}

// What the first reading of a reference without a scheme gives, seen by
// refusing the copy behind "http://".
TEST(UriParse, RelativeReferences) {
  const Case kCases[] = {
      {"a/b?q#f", "path='a/b' query='q' fragment='f'"},
      {"a;p@x", "path='a;p@x'"},
      {"a%2Fb/c", "path='a/b/c'"},
      {"/a\\b", "path='/a\\\\b'"},
      {"//host.example:81/x", "host='host.example' port=81 path='/x'"},
      {"//host.example x", "null"},
      {"?q", "query='q'"},
      {"#f", "fragment='f'"},
      {"?", "query=''"},
      {":x", "null"},
      {"\\\\host.example", "null"},
      {"a\\b", "null"},
      {"host.example ", "path='host.example'"},
  };
  CHECK_TABLE(kCases, FirstReading);
}

}  // namespace

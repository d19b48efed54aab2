// URI_GetServer: only the scheme and the authority are read.
#include <gtest/gtest.h>

#include "uri_test_util.h"

namespace {

using vrk::test::Check;
using vrk::test::Server;

TEST(UriServer, Table) {
  EXPECT_EQ(URI_GetServer(nullptr), nullptr);
  Check({
      {"", "{}"},
      // Nothing after the authority is stored or checked.
      {"http://user:pw@host.example:8080/a?b#c", "scheme='http' host='host.example' userinfo='user:pw' port=8080"},
      {"http://host.example/a b", "scheme='http' host='host.example'"},
      {"file:///a", "scheme='file'"},
      {"http://", "null"},
      // A server must end the authority; anything else makes a registry name.
      {"http://host.example extra", "scheme='http' reg_name='host.example'"},
      {"http:\\\\host.example\\a", "scheme='http' reg_name='host.example'"},
      {"http://a.example:80x", "scheme='http' reg_name='a.example:80x' port=80"},
      {"http://a b", "scheme='http' reg_name='a'"},
      {"http:// ", "null"},
      // The scheme must be followed by "//" or two backslashes.
      {"http:/x", "null"},
      {"host.example:8080", "null"},
      {"urn:a:b", "null"},
      // Without a scheme: behind "http://", and the server name needs an
      // inner dot, in the host or in the registry name.
      {"host.example/a b", "scheme='http' host='host.example'"},
      {"user@host.example", "scheme='http' host='host.example' userinfo='user'"},
      {"user:pw@host.example", "null"},
      {"localhost", "null"},
      {"host.", "null"},
      {"a.b.", "scheme='http' host='a.b.'"},
      {"host.example extra", "scheme='http' reg_name='host.example'"},
      {"a..b", "scheme='http' reg_name='a..b'"},
      {"host.example#x", "scheme='http' reg_name='host.example'"},
      // The text must begin with a letter.
      {"10.1.2.3", "null"},
      {"/a", "null"},
      {"//host.example", "null"},
      {"-a.example", "null"},
  }, Server);
}

}  // namespace

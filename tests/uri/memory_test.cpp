// Memory of the URI functions: every allocator call in order with its
// sizes, and what each function gives when any one of its allocations is
// refused. Nothing may stay allocated after a failure.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "support/alloc_trace.h"
#include "support/leak_check.h"
#include "uri_test_util.h"

namespace {

using vrk::test::Described;

using Function = URI_Record* (*)(const char*);

// One allocation request of a run without failures (bytes requested) and
// the record the function gives when exactly that request is refused.
struct Step {
  uint32_t bytes;
  const char* on_refusal;
};

struct Scenario {
  const char* name;
  Function function;
  const char* input;
  const char* result;  // without any refusal
  std::vector<Step> steps;
};


const char kFull[] = "scheme='http' host='h.example' userinfo='u' port=8 path='/p' query='q' fragment='f'";

std::vector<Scenario> Scenarios() {
  return {
      {"absolute reference", URI_Parse, "http://u@h.example:8/p?q#f", kFull,
       {
           {40, "null"},  // the record
           // Without its scheme the text is read again behind "http://",
           // where "http" becomes a host without a dot.
           {5, "null"},
           {3, "scheme='http' host='h.example' port=8 path='/p' query='q' fragment='f'"},  // "u@"
           {10, "scheme='http' userinfo='u' port=8 path='/p' query='q' fragment='f'"},
           {3, "null"},  // a path that cannot be grown fails the parse
           {2, "scheme='http' host='h.example' userinfo='u' port=8 path='/p' fragment='f'"},
           {2, "scheme='http' host='h.example' userinfo='u' port=8 path='/p' query='q'"},
       }},
      {"reference behind the default prefix", URI_Parse, "h.example/p",
       "scheme='http' host='h.example' path='/p'",
       {
           {40, "null"},
           {10, "scheme='http' host='h.example' path='/p'"},  // scheme of the failed absolute attempt
           {10, "scheme='http' host='h.example' path='/p'"},  // relative segment
           {12, "null"},                                     // its path
           {19, "path='h.example/p'"},                       // the prefixed copy: the first reading stands
           {5, "host='h.example' path='/p'"},
           {10, "scheme='http' path='/p'"},
           {3, "null"},
       }},
      {"registry name", URI_Parse, "http://a.example:80x", "scheme='http' reg_name='a.example:80x' port=80",
       {
           {40, "null"},
           {5, "null"},  // read again as "http://http://a.example:80x": host "http"
           {10, "scheme='http' reg_name='a.example:80x' port=80"},  // the host of the server attempt
           {14, "scheme='http' port=80"},
       }},
      {"server", URI_GetServer, "http://u@h.example:8/p?q#f", "scheme='http' host='h.example' userinfo='u' port=8",
       {
           {40, "null"},
           {5, "host='h.example' userinfo='u' port=8"},
           {3, "scheme='http' host='h.example' port=8"},
           {10, "scheme='http' userinfo='u' port=8"},
       }},
      {"server behind the default prefix", URI_GetServer, "u@h.example",
       "scheme='http' host='h.example' userinfo='u'",
       {
           {40, "null"},
           {2, "scheme='http' host='h.example' userinfo='u'"},  // "u", dropped anyway
           {19, "null"},                                        // the prefixed copy
           {40, "null"},
           {5, "host='h.example' userinfo='u'"},
           {3, "scheme='http' host='h.example'"},
           {10, "scheme='http' userinfo='u'"},
       }},
  };
}

// The allocator calls made while `run` executes.
template <typename Run>
std::vector<VrkAllocCall> Logged(Run run) {
  vrk::test::AllocTrace trace;
  run();
  return trace.Calls();
}

// The bytes each allocation of `calls` asked for, in order.
std::vector<uint32_t> Requests(const std::vector<VrkAllocCall>& calls) {
  std::vector<uint32_t> bytes;
  for (const VrkAllocCall& c : calls)
    if (c.op != VRKALLOC_PFREE) bytes.push_back(c.op == VRKALLOC_PCALLOC ? c.a * c.b : c.a);
  return bytes;
}

TEST(UriMemory, EachRefusedAllocation) {
  for (const Scenario& s : Scenarios()) {
    SCOPED_TRACE(s.name);
    const uint32_t live = vrk::test::LiveBlocks();
    // The run without failures: its requests, in order and exact sizes.
    std::string result;
    const auto requested = Requests(Logged([&] { result = Described(s.function(s.input)); }));
    EXPECT_EQ(result, s.result);
    ASSERT_EQ(requested.size(), s.steps.size());
    for (size_t n = 0; n < s.steps.size(); ++n) {
      SCOPED_TRACE("request " + std::to_string(n + 1));
      EXPECT_EQ(requested[n], s.steps[n].bytes);
      vrkalloc_fail_nth(uint32_t(n + 1));
      EXPECT_EQ(Described(s.function(s.input)), s.steps[n].on_refusal);
      vrkalloc_fail_nth(0);
      EXPECT_EQ(vrk::test::LiveBlocks(), live);
    }
  }
}

// Every text block holds exactly its component and terminator, the userinfo
// one byte more (it is decoded with its "@"); the record is one zeroed block,
// and URI_Free releases the texts and then the record.
TEST(UriMemory, BlocksAreExactlySized) {
  for (const char* input : {"http://user:pw@host.example:8080/a/b;p?x=1#top", "urn:isbn:0451450523",
                            "http://a.example:80x", "host.example/a?q#", "file:///", "//h.example:1/"}) {
    SCOPED_TRACE(input);
    URI_Record* r = nullptr;
    const auto calls = Logged([&] { r = URI_Parse(input); });
    ASSERT_NE(r, nullptr);
    EXPECT_TRUE(calls[0].op == VRKALLOC_PCALLOC && calls[0].a == 1 && calls[0].b == sizeof(URI_Record));
    uint32_t texts = 0;
    for (char* URI_Record::*field : {&URI_Record::scheme, &URI_Record::opaque, &URI_Record::reg_name,
                                     &URI_Record::host, &URI_Record::userinfo, &URI_Record::path,
                                     &URI_Record::query, &URI_Record::fragment}) {
      const char* text = r->*field;
      if (!text) continue;
      ++texts;
      auto made = std::find_if(calls.rbegin(), calls.rend(), [&](const VrkAllocCall& c) { return c.result == text; });
      ASSERT_NE(made, calls.rend()) << text;
      EXPECT_EQ(made->op, VRKALLOC_PMALLOC) << text;
      EXPECT_EQ(made->a, std::strlen(text) + (field == &URI_Record::userinfo ? 2 : 1)) << text;
    }
    const auto frees = Logged([&] { URI_Free(r); });
    ASSERT_EQ(frees.size(), texts + 1);
    for (const VrkAllocCall& call : frees) EXPECT_EQ(call.op, VRKALLOC_PFREE);
    EXPECT_EQ(frees.back().block, r);
  }
}

// An escaped span is sized by its raw length, not by what it decodes to.
TEST(UriMemory, EscapedSpansSizeTheirBlocks) {
  std::string result;
  EXPECT_EQ(Requests(Logged([&] { result = Described(URI_Parse("http://%41b@h.example/%41%42/?%43#%44%00x")); })),
            (std::vector<uint32_t>{40, 5, 6, 10, 9, 4, 8}));
  EXPECT_EQ(result, "scheme='http' host='h.example' userinfo='Ab' path='/AB/' query='C' fragment='D'");
}

TEST(UriMemory, EveryAllocationRefusedInTurn) {
  // Broader than the scenarios above: no leak, no crash, whatever is refused
  // (the empty text included: it still needs its record).
  const char* const kInputs[] = {
      "", "http://u:p@h.example:80/a/b;c?d#e", "h.example/a/b", "//h.example/x?y#z", "u@h.example:1",
      "mailto:a@b.example", "http://1.2.3.4.5/", "http://u@a..b/x", "a/b/c?x", "10.0.0.1/",
  };
  const uint32_t live = vrk::test::LiveBlocks();
  for (const char* input : kInputs) {
    for (Function f : {URI_Parse, URI_GetServer}) {
      const uint32_t before = vrkalloc_requests();
      URI_Free(f(input));
      const uint32_t count = vrkalloc_requests() - before;
      for (uint32_t n = 1; n <= count; ++n) {
        vrkalloc_fail_nth(n);
        URI_Free(f(input));
        vrkalloc_fail_nth(0);
        ASSERT_EQ(vrk::test::LiveBlocks(), live) << input << " request " << n;
      }
    }
  }
}

}  // namespace

// Reading JSON (RFC 8259) as flat pairs: {"a": [{"b": 1}]} is a.0.b=1.
#pragma once

#include <map>
#include <sstream>
#include <string>

#include "runtime/text.h"
#include "tests/support/openssl.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {

using JsonValues = std::map<std::string, std::string>;

/// The values by their paths, texts without quotes and escapes. Nothing for what is no JSON.
inline JsonValues ReadJson(const std::string& text) {
  const TemporaryFolder folder;
  const std::string script = folder.Write("flat.py", R"(import json, sys

def walk(path, value):
    if isinstance(value, (dict, list)):
        for name, inner in value.items() if isinstance(value, dict) else enumerate(value):
            walk(f"{path}.{name}", inner)
    else:
        text = value if isinstance(value, str) else json.dumps(value)
        print(path[1:], "x" + text.encode().hex())

walk("", json.loads(sys.stdin.buffer.read().decode()))
)");
  std::istringstream lines(OutputOf("python3 " + script + " < " + folder.Write("text", text)));
  JsonValues values;
  for (std::string path, hex; lines >> path >> hex;) {
    values[path] = runtime::AsText(runtime::HexDecode(hex));
  }
  return values;
}

}  // namespace qixx::testing

// The parser's machine as a table from (phase, kind of character) to actions.
#include "model/list.h"

namespace vek_model {

List ParseList(const std::string& text) {
  List out;
  if (text.size() < 3) {
    out.error = "Wrongly formated parameter string (too short)";
    return out;
  }
  enum { kBefore, kInside, kDone } phase = kBefore;
  bool armed = false;
  bool flat = false;
  bool pending = false;
  bool closed = false;
  std::string token;
  for (char c : text) {
    const char kind = c == '[' || c == ']' || c == ',' ? c : 'x';
    if (phase == kBefore && kind == '[') {
      phase = armed ? kInside : kBefore;
      armed = true;
    } else if (phase == kBefore && kind == ']') {
      phase = kDone;
    } else if (phase == kBefore) {
      flat = true;
      phase = kInside;
      token += c;
      pending = closed = false;
    } else if (phase == kInside && kind == ',') {
      pending = true;
      closed = false;
    } else if (phase == kInside && kind == '[') {
      if (token == "") pending = false;
      closed = false;
    } else if (phase == kInside && kind == ']' && (flat || closed)) {
      phase = kDone;
      pending = closed = true;
      if (token != "") out.elements.push_back(token);
    } else if (phase == kInside && kind == ']') {
      flat = false;
      pending = closed = true;
    } else if (phase == kInside) {
      if (pending) {
        out.elements.push_back(token);
        token = "";
        pending = false;
      }
      token += c;
      closed = false;
    } else if (pending) {
      out.elements.push_back(token);
      token = "";
      pending = false;
    }
  }
  out.ok = phase == kDone;
  if (!out.ok) out.error = "Wrongly formated parameter string for software operation";
  return out;
}

}  // namespace vek_model

#include "compare.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "comparison.h"
#include "file_argument.h"
#include "heat_map.h"
#include "new_file.h"
#include "other_reading.h"
#include "tensor_file.h"
#include "usage_error.h"

namespace vekrun {
namespace {

using Dims = std::vector<unsigned int>;
using Json = nlohmann::ordered_json;

void Print(const std::string& line) { std::printf("%s\n", line.c_str()); }

std::string Number(std::uint64_t number) { return std::to_string(number); }

std::string Verb(std::uint64_t number, const char* one, const char* many) {
  return Number(number) + " " + (number == 1 ? one : many);
}

std::string ToleranceText(const Tolerance& tolerance) {
  if (tolerance.bits) return "bits";
  std::string text;
  const auto add = [&text](const char* name, double value) {
    if (value > 0) text.append(text.empty() ? "" : ", ").append(name).append(" ").append(NumberText(value));
  };
  add("atol", tolerance.absolute);
  add("rtol", tolerance.relative);
  add("ulp", tolerance.ulp.value_or(0));
  return text;
}

void PrintDifferences(const LaidOut& a, const Comparison& result, const Tolerance& tolerance) {
  const std::uint64_t unequal = result.elements - result.equal;
  std::string line =
      Number(result.equal) + " of " + Verb(result.elements, "element is", "elements are") + " equal";
  if (unequal > 0) line += ", " + Verb(unequal, "differs", "differ");
  const std::string limits = ToleranceText(tolerance);
  if (unequal > 0 && !limits.empty() && !tolerance.bits) {
    line += ", " + (result.beyond == 0 ? "none" : Number(result.beyond)) + " of them beyond " + limits;
  }
  Print(line);
  if (result.nan_in_a + result.nan_in_b > 0) {
    Print("NaN: " + Number(result.nan_in_a) + " in A, " + Number(result.nan_in_b) + " in B, " +
          Number(result.nan_in_both) + " at the same place");
  }
  if (result.infinite_in_a + result.infinite_in_b > 0) {
    Print("infinite: " + Number(result.infinite_in_a) + " in A, " + Number(result.infinite_in_b) + " in B");
  }
  if (unequal == 0) return;

  line = "largest difference " + NumberText(result.largest.difference) + " at " +
         IndexText(result.largest.index) + ": A " + result.largest.a + ", B " + result.largest.b;
  constexpr double kTellingUlp = 1e6;  // beyond, they say less than the difference itself
  if (IsFloat(a.type) && result.largest_ulp && *result.largest_ulp < kTellingUlp) {
    line += "; at most " + NumberText(*result.largest_ulp) + " ulp";
  }
  Print(line);
  Print("|A - B|: mean " + NumberText(result.mean_difference) + ", RMS " + NumberText(result.rms_difference) +
        "; cosine " + NumberText(result.cosine) + ", SNR " + NumberText(result.snr_decibel) + " dB");
  if (result.beyond < 2) return;
  const std::size_t rank = result.beyond_by_axis.size();
  for (std::size_t d = 0; d < rank; ++d) {
    if (result.beyond_by_axis[d].size() > 1) Print("  " + SpreadAlongAxis(rank, d, result.beyond_by_axis[d]));
  }
}

std::string ReadingText(const OtherReading& reading, std::uint64_t elements) {
  std::string text = reading.differences == 0
                         ? "equal when "
                         : "only " + Verb(reading.differences, "differs", "differ") + " when ";
  text += reading.text;
  if (reading.compared < elements)
    text += ", as far as its bytes reach: " + Number(reading.compared) + " elements";
  return text;
}

Json SideAsJson(const LaidOut& side) {
  return {{"name", side.name}, {"type", Name(side.type)}, {"shape", side.attrs.GetDims()}};
}

Json AsJson(const Comparison& result) {
  Json axes = Json::array();
  for (std::size_t d = 0; d < result.beyond_by_axis.size(); ++d) {
    Json counts = Json::array();
    for (std::size_t i = 0; i < result.beyond_by_axis[d].size(); ++i) {
      if (result.beyond_by_axis[d][i] > 0)
        counts.push_back({{"index", i}, {"beyond", result.beyond_by_axis[d][i]}});
    }
    axes.push_back({{"axis", d}, {"extent", result.beyond_by_axis[d].size()}, {"counts", counts}});
  }
  // JSON has no infinity and no NaN: they are null.
  Json json = {{"elements", result.elements},
               {"equal", result.equal},
               {"beyond", result.beyond},
               {"mean_difference", result.mean_difference},
               {"rms_difference", result.rms_difference},
               {"cosine", result.cosine},
               {"snr_decibel", result.snr_decibel},
               {"nan", {{"a", result.nan_in_a}, {"b", result.nan_in_b}, {"both", result.nan_in_both}}},
               {"infinite", {{"a", result.infinite_in_a}, {"b", result.infinite_in_b}}},
               {"largest", nullptr},
               {"largest_ulp", nullptr},
               {"first", nullptr},
               {"by_axis", axes}};
  if (result.largest_ulp) json["largest_ulp"] = *result.largest_ulp;
  if (result.equal < result.elements) {
    json["largest"] = {{"difference", result.largest.difference},
                       {"index", result.largest.index},
                       {"a", result.largest.a},
                       {"b", result.largest.b}};
  }
  if (result.beyond > 0) json["first"] = result.first;
  return json;
}

void WriteFile(const std::string& path, const std::string& text) {
  NewFile file(path);
  file.Write(text);
  file.Publish();
}

void WritePicture(const std::string& path, const HeatMap& picture) {
  const Dims dims = {1, 3, picture.height, picture.width};
  const FileArgument target = ParseFileArgument(path);
  const std::size_t plane = std::size_t{picture.height} * picture.width;
  const std::shared_ptr<std::byte> data = NewBytes(3 * plane);
  for (std::size_t i = 0; i < plane; ++i) {
    for (std::size_t c = 0; c < 3; ++c)
      data.get()[c * plane + i] = static_cast<std::byte>(picture.pixels[3 * i + c]);
  }
  NewFile file(path);
  WriteTensor(target, {ElementType::kUint8, dims, data}, &file);
  file.Publish();
}

void CheckPicture(const std::string& path) {
  const FileArgument target = ParseFileArgument(path);
  if (KindOf(target) != FileKind::kPicture)
    throw UsageError(path + ": a picture's name ends in .png or .ppm");
  CheckCanHold(target, ElementType::kUint8, {1, 3, 1, 1});
}

void CheckTolerance(const LaidOut& a, const LaidOut& b, const Tolerance& tolerance) {
  const bool of_elements = tolerance.bits || tolerance.ulp;
  const char* const option = tolerance.bits ? "--bits" : "--ulp";
  if (of_elements && a.type != b.type) {
    throw UsageError(std::string(option) + " compares elements of one type; A is " + Name(a.type) + ", B " +
                     Name(b.type));
  }
  if (of_elements && tolerance.real) {
    throw UsageError(std::string(option) +
                     " compares what is stored, --real what it stands for: give one of them");
  }
}

}  // namespace

bool ReportComparison(const LaidOut& a, const LaidOut& b, const ReportRequest& request) {
  const Tolerance& tolerance = request.tolerance;
  CheckTolerance(a, b, tolerance);
  if (!request.picture.empty()) CheckPicture(request.picture);
  Print("A: " + a.name + " (" + ShapeText(a.attrs.GetDims()) + " " + Name(a.type) + ")");
  Print("B: " + b.name + " (" + ShapeText(b.attrs.GetDims()) + " " + Name(b.type) + ")");
  const bool same_shape = a.attrs.GetDims() == b.attrs.GetDims();
  Json json = {{"a", SideAsJson(a)}, {"b", SideAsJson(b)}, {"agree", false}};
  const std::uint64_t elements = ElementCount(b.attrs.GetDims());
  std::uint64_t differences = elements;
  if (same_shape) {
    const Comparison result = CompareElements(a, b, tolerance);
    differences = result.beyond;
    PrintDifferences(a, result, tolerance);
    json.update(AsJson(result));
  } else {
    Print("the shapes differ");
  }
  const bool agree = same_shape && differences == 0;
  json["agree"] = agree;
  json["equal_when"] = nullptr;
  if (!agree) {
    if (const std::optional<OtherReading> other = FindOtherReading(a, b, tolerance, differences)) {
      Print(ReadingText(*other, elements));
      json["equal_when"] = {
          {"reading", other->text}, {"compared", other->compared}, {"beyond", other->differences}};
    }
  }
  if (!request.json.empty()) WriteFile(request.json, json.dump(2) + "\n");
  if (!request.picture.empty() && !same_shape) Print("no picture, for the shapes differ");
  if (!request.picture.empty() && same_shape) {
    WritePicture(request.picture, DrawHeatMap(a.attrs.GetDims(), AbsoluteDifferences(a, b, tolerance)));
  }
  return agree;
}

void AddToleranceOptions(CLI::App* app, ReportRequest* request) {
  Tolerance& tolerance = request->tolerance;
  app->add_option("--atol", tolerance.absolute, "Elements agree where |a - b| <= atol + rtol * |b|")
      ->check(CLI::NonNegativeNumber);
  app->add_option("--rtol", tolerance.relative, "As --atol; B is the expected one")
      ->check(CLI::NonNegativeNumber);
  app->add_option("--ulp", tolerance.ulp,
                  "Elements agree where so few units in the last place lie between them")
      ->check(CLI::NonNegativeNumber);
  app->add_flag("--bits", tolerance.bits,
                "Elements agree where their bits are equal: tells -0 from 0, NaN from NaN");
  app->add_flag("--real", tolerance.real,
                "Compare what fixed-point elements stand for, by exp, or zero and scale");
  app->add_option("--picture", request->picture, "A picture of the differences, .png or .ppm");
}

CLI::App* AddCompare(CLI::App* app, CompareRequest* request) {
  CLI::App* compare = app->add_subcommand("compare", "Tell whether two tensors agree, and how they differ");
  compare->add_option("A", request->a, "A tensor")->required();
  compare->add_option("B", request->b, "The expected one")->required();
  AddToleranceOptions(compare, &request->report);
  compare->add_option("--json", request->report.json, "The report as JSON; - is standard output");
  compare->footer(
      "NaN equals NaN, and -0 equals 0, but with --bits.\n"
      "Exit status: 0 all elements agree, 1 some do not, 2 wrong usage or a file that cannot be read.");
  return compare;
}

bool Compare(const CompareRequest& request) {
  if (request.report.json == "-") KeepStandardOutputForFiles();
  const StoredTensor a = OpenTensor(ParseFileArgument(request.a));
  const StoredTensor b = OpenTensor(ParseFileArgument(request.b));
  return ReportComparison(View(a), View(b), request.report);
}

}  // namespace vekrun

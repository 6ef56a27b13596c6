// vekrun: runs one layer of the plug-in by hand, and tells whether a build gives the recorded results.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>
#include <vector>

#include "certify.h"
#include "compare.h"
#include "convert.h"
#include "drawing.h"
#include "info.h"
#include "interruption.h"
#include "list.h"
#include "replay.h"
#include "run_command.h"
#include "suggestion.h"
#include "usage_error.h"

namespace vekrun {
namespace {

enum ExitStatus { kDone = 0, kRefused = 1, kDiffers = 1, kUsage = 2 };

// What the user may have meant by words that nothing takes.
std::string Unexpected(const CLI::App& app) {
  const std::vector<CLI::App*> chosen = app.get_subcommands();
  const std::vector<std::string> words = app.remaining(/*recurse=*/true);
  const std::string word = words.empty() ? "" : words[0].substr(0, words[0].find('='));
  std::vector<std::string> names;
  if (chosen.empty()) {
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
      names.push_back(command->get_name());
    }
    return "there is no command " + word + DidYouMean(word, names);
  }
  for (const CLI::Option* option : chosen[0]->get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return "vekrun " + chosen[0]->get_name() + " takes no " + word + DidYouMean(word, names);
}

ExitStatus Main(int argc, char** argv) {
  CLI::App app("Runs one layer of libvekcustom.so by hand: from files, to a file.", "vekrun");
  app.set_version_flag("--version", "vekrun " VEK_VERSION);
  app.require_subcommand(1);

  ListRequest listing;
  const CLI::App* list = AddList(&app, &listing);
  RunCommand command;
  const CLI::App* run = AddRun(&app, &command);

  CertifyRequest certificate;
  CLI::App* certify =
      app.add_subcommand("certify", "Compare what the plug-in computes with the recorded certificate");
  certify->add_option("TYPE", certificate.types, "Only these types");
  certify->add_option("--plugin", certificate.plugin, "The plug-in, as for 'vekrun run'");
  certify->add_option("--record", certificate.record, "The certificate; by default the installed one");
  CLI::Option* print =
      certify->add_flag("--print", certificate.print, "Print this build's certificate instead");
  certify->add_option("--cases", certificate.cases, "Print the hash of each case of a layer instead")
      ->type_name("TYPE")
      ->excludes(print);
  certify->footer("Exit status: 0 equal, 1 different, 2 wrong usage.");

  CompareRequest comparison;
  const CLI::App* compare = AddCompare(&app, &comparison);
  InfoRequest looking;
  const CLI::App* info = AddInfo(&app, &looking);
  ConvertRequest conversion;
  const CLI::App* convert = AddConvert(&app, &conversion);
  LayoutRequest drawing;
  const CLI::App* layout = AddLayout(&app, &drawing);

  ReplayRequest repetition;
  const CLI::App* replay = AddReplay(&app, &repetition);

  if (argc < 2) {
    std::fputs(app.help().c_str(), stdout);
    return kDone;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::RequiredError&) {
    if (app.get_subcommands().empty()) throw UsageError(Unexpected(app));
    throw;
  } catch (const CLI::ExtrasError&) {
    throw UsageError(Unexpected(app));
  } catch (const CLI::Success& success) {  // --help, --version
    app.exit(success);
    return kDone;
  }
  if (*list) {
    List(listing);
    return kDone;
  }
  if (*run) return Run(Finish(command)) ? kDone : kRefused;
  if (*compare) return Compare(comparison) ? kDone : kDiffers;
  if (*convert) return Convert(conversion) ? kDone : kRefused;
  if (*info) {
    Info(looking);
    return kDone;
  }
  if (*layout) {
    Layout(drawing);
    return kDone;
  }
  if (*replay) return Replay(repetition) ? kDone : kDiffers;
  return Certify(certificate) ? kDone : kDiffers;
}

}  // namespace
}  // namespace vekrun

int main(int argc, char** argv) {
  vekrun::CatchInterruptions();
  try {
    return vekrun::Main(argc, argv);
  } catch (const std::exception& error) {  // UsageError, a parse error, memory that a file asks for
    std::fflush(stdout);
    std::fprintf(stderr, "vekrun: %s\n", error.what());
    return vekrun::kUsage;
  }
}

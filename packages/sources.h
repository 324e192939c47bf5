// Software sources: the `Source` record, the hand-editable sources.list
// (one "zan <url> [key=value ...]" per line), the older sources.json it
// migrates from, the built-in default list, and the path rule that also
// places the installed state.
#pragma once

#include <string>
#include <vector>

namespace tov {

struct Source {
  std::string type = "server";  // "server" or "github-topic"; other types are skipped by the walk
  std::string url;              // a "server" url holding ".zan" is a container source
  std::string raw;              // github-topic: base for reading repository files
  std::string topic;            // github-topic: the topic searched for
};

// The four comment lines every saved file starts with.
extern const char kSourcesHeader[];
// The header and the two built-in sources.
const std::string& defaultSourcesText();

// $ZAN_SOURCES when set (even empty), else $HOME/.zan/sources.list.
std::string sourcesConfigPath();

// One line without its end: "zan|deb <url> [key=value ...]", words split at
// blanks and tabs. False for anything else.
bool parseSourceLine(const std::string& line, Source& source);
// Lines at 0x0A; a last line without one counts, an empty tail does not.
std::vector<std::string> splitLines(const std::string& text);
// Every valid source line of `text`, in order; comments and junk drop out.
std::vector<Source> parseSourcesText(const std::string& text);
// The saved form of one source, without a line end.
std::string sourceLine(const Source& source);
// Makes the directories, then writes the header and one line per source.
bool saveSources(const std::vector<Source>& list);
// The sources file when it has a valid line; else the first older JSON file
// that yields a source (migrated into the text file); else the defaults.
std::vector<Source> loadSources();

}  // namespace tov

// `zan source list|reset|add|remove`; the exit code.
int cmdSource(int argc, char** argv);
// The usage text on standard error.
void printSourceUsage(bool chinese);

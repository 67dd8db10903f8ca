#pragma once

#include <map>
#include <string>
#include <vector>

namespace orva::test {

// A file of the repository, such as "docs/limits.md".
std::string repositoryFile(const std::string& name);

// The cells of all tables of a page of Markdown, row by row, without the rows of dashes.
std::vector<std::vector<std::string>> tableRows(const std::string& page);

// The text between a cell's backticks; empty when it is of another form.
std::string codeOf(const std::string& cell);

// The sources of what is delivered: name in the repository -> text.
std::map<std::string, std::string> deliveredSources();

}  // namespace orva::test

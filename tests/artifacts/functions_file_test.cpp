#include "artifacts/functions_file.hpp"

#include <cctype>

#include "artifacts/fixture.hpp"

namespace tidalcrest::sync {
namespace {

using namespace testing;

const std::string GOOD = R"({"era_number": 7, "functions": {"add": 1}})";

std::string upper(std::string text) {
  for (char& letter : text) letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
  return text;
}

// What the validation of `bytes` under these declarations says.
std::string outcome(const Document& pointer, const Document& entry, const std::string& bytes) {
  TempDir root;
  root.write("functions.json", bytes);
  Document data = {{"era_number", 7}, {"files", Document::object()}};
  data["functions"] = pointer;
  if (!entry.is_null()) data["files"]["functions.json"] = entry;
  return failure_of([&] { _validate_functions_file(root.path(), Manifest(data)); });
}

TEST(FunctionsFile, DeclarationIsTestedBeforeTheBytes) {
  Document entry = entry_for(GOOD, "functions");
  entry["sha256"] = " " + upper(entry["sha256"]) + "\n";
  EXPECT_EQ(outcome("functions.json", entry, GOOD), "nothing");
  entry["sha256"] = nullptr;
  EXPECT_EQ(outcome("functions.json", entry, GOOD),
            "SyncError: manifest files[\"functions.json\"].sha256 is required");
  entry["size_bytes"] = 1;
  EXPECT_EQ(outcome("functions.json", entry, GOOD), "IntegrityError: functions.json size_bytes mismatch");
  entry["kind"] = "feature";
  EXPECT_EQ(outcome("functions.json", entry, GOOD),
            "SyncError: manifest files[\"functions.json\"].kind must be functions");
  EXPECT_EQ(outcome("functions.json", nullptr, GOOD),
            "SyncError: manifest files[\"functions.json\"] must be an object");
  for (const Document& pointer :
       {Document("other.json"), Document(nullptr), Document{{"path", "functions.json"}}}) {
    EXPECT_EQ(outcome(pointer, entry, GOOD), "SyncError: manifest is missing functions.json pointer");
  }
}

TEST(FunctionsFile, BytesAreBoundToDigestAndEra) {
  const auto of_content = [](const std::string& bytes) {
    return outcome("functions.json", entry_for(bytes, "functions"), bytes);
  };
  EXPECT_EQ(outcome("functions.json", entry_for(GOOD, "functions"), std::string(GOOD.size(), 'x')),
            "IntegrityError: functions.json sha256 mismatch");
  EXPECT_THAT(of_content("{"), StartsWith("SyncError: functions.json is not valid JSON: "));
  EXPECT_EQ(of_content("[7]"), "SyncError: functions.json must contain a JSON object");
  EXPECT_EQ(of_content("{}"),
            "EraError: functions.json era_number=None does not match manifest era_number=7");
  EXPECT_EQ(of_content(R"({"era_number": "7"})"),
            "EraError: functions.json era_number=7 does not match manifest era_number=7");
  EXPECT_EQ(of_content(R"({"era_number": 7.0})"), "nothing");
  EXPECT_THAT(of_content(R"({"era_number": 7, "functions": {"fn_1": 0}})"),
              StartsWith("SyncError: vocabulary.json contains retired function token ids fn_1;"));
}

}  // namespace
}  // namespace tidalcrest::sync

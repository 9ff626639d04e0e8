#include <HtmlPage.h>

#include <gtest/gtest.h>

namespace sorvex::agent {
namespace {

TEST(HtmlPage, IsToldByItsBegin) {
  for (const char* const text :
       {"<html>", "<HTML lang=\"en\">", "<html", "<html/>", "<!DOCTYPE html>\n<html>", "<!doctype HTML PUBLIC \"x\">",
        " \r\n\t<html>", "\xEF\xBB\xBF<html>", "<!-- a page --><html>", "<?xml version=\"1.0\"?>\n<!DOCTYPE html>",
        "<?xml?><!-- a --> <!-- b --><html>"}) {
    EXPECT_TRUE(IsHtmlPage(text)) << text;
  }
}

TEST(HtmlPage, IsNothingElse) {
  for (const char* const text :
       {"", " ", "<", "html", "<htm", "<AgentConfig/>", "<htmlConfig>", "<?xml version=\"1.0\"?><AgentConfig><html>",
        "<!-- <html> --><AgentConfig/>", "<!-- <html>", "<!DOCTYPE agent>", "\x1F\x8B\x08", "d41d8cd98f00b204e980",
        "text <html>"}) {
    EXPECT_FALSE(IsHtmlPage(text)) << text;
  }
}

}  // namespace
}  // namespace sorvex::agent

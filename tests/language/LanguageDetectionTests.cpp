#include "language/Language.h"
#include "language/LanguageChoices.h"

#include <gtest/gtest.h>

namespace brim {
namespace {

struct Expectation {
    std::string_view name;
    std::string_view id;
};

TEST(LanguageDetection, theNameDecidesWhenItCan) {
    const Expectation cases[] = {
        {"/a/CMakeLists.txt", "cmake"},     // names before extensions: not plain text
        {"/a/KeyBindings.json", "json"},
        {"theme.brimtheme", "json"},
        {"mode.brimmode", "json"},
        {"main.swift", "swift"},
        {"Main.PY", "python"},              // extensions compare lower-cased
        {"/src/lib.rs", "rust"},
        {"page.php", "php-html"},
        {"view.html.erb", "erb"},
        {"card.html.heex", "eex"},
        {"notes.txt", "plain"},
        {"Gemfile", "ruby"},
        {"BUILD.bazel", "python"},
        {"/home/u/.bashrc", "shell"},
        {"/home/u/.vimrc", "vimscript"},
        {".gitignore", "gitignore"},
        {"nginx.conf", "nginx"},
        {"file.py.gz", "python"},           // compression is looked through
        {"dump.sql.GZ", "sql"},
        {"file.tar.gz", "plain"},           // an archive of files keeps gz as its extension
        {".gz", "plain"},
        {"Dockerfile.dev", "dockerfile"},   // prefix rules
        {"Containerfile.prod", "dockerfile"},
        {"Makefile.linux", "make"},
        {"GNUmakefile", "make"},
        {".env.local", "toml"},
        {".env", "toml"},
        {"/home/u/.ssh/config", "sshconfig"},
        {"/etc/app/config", "plain"},       // only under .ssh
        {"README", "plain"},
        {"archive.unknownext", "plain"},
        {"", "plain"},
        {"Makefile.am", "make"},
        {"CMakeLists.txt.gz", "cmake"},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.name);
        EXPECT_EQ(Language::detect(item.name).id, item.id);
    }
}

TEST(LanguageDetection, whetherTheNameSaysAnything) {
    const std::pair<std::string_view, bool> cases[] = {
        {"", true},          {"README", true},     {"data.unknownext", true}, {"notes.txt", false},
        {"x.py", false},     {"Makefile", false},  {"x.py.gz", false},        {"x.tar.gz", true},
        {".bashrc", false},  {".hidden", true},    {"/a/b/c", true},          {"x.html.erb", false},
    };
    for (const auto& [name, saysNothing] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(Language::nameSaysNothing(name), saysNothing);
    }
}

TEST(LanguageDetection, theShebangNamesTheInterpreterExactly) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"#!/usr/bin/env python3\nprint(1)\n", "python"},
        {"#!/usr/bin/env -S python3 -u\n", "python"},
        {"#! /usr/bin/perl -w\n", "perl"},
        {"#!/bin/bash\r\necho hi\r\n", "shell"},
        {"#!/bin/sh\n", "shell"},
        {"#!/usr/bin/awk -f\n", "shell"},         // as the interpreter table has it
        {"#!/usr/bin/env dotnet fsi\n", "fsharp"},
        {"#!/usr/bin/osascript -l JavaScript\n", "jxa"},
        {"#!/usr/bin/osascript -l javascript\n", "jxa"},
        {"#!/usr/bin/osascript\ntell application \"Finder\"\n", "applescript"},
        {"#!/usr/local/bin/node\n", "javascript"},
        {"#!/usr/bin/Rscript\n", "r"},
        {"#!/usr/bin/env -i PATH=/bin ruby\n", ""},  // PATH=/bin is the interpreter here: unknown
        {"#!/usr/bin/python3.11\n", ""},          // no prefix matching
        {"#!/usr/bin/env\n", ""},
        {"#!\n", ""},
        {"# !/bin/sh\n", ""},
        {"\n#!/bin/sh\n", ""},
        {"#!/bin/zsh\xe2\x80\xa8more", "shell"},     // U+2028 ends the line
    };
    for (const auto& [sample, id] : cases) {
        SCOPED_TRACE(sample);
        const auto found = Language::fromShebang(sample);
        EXPECT_EQ(found ? found->id : "", id);
    }
}

TEST(LanguageDetection, aPlainNameLetsTheFirstLineSpeak) {
    // ".txt" says plain, so the shebang is asked; it is not asked when the name says more.
    EXPECT_EQ(Language::detect("tool.txt", "#!/usr/bin/env python3\nimport sys\n").id, "python");
    EXPECT_EQ(Language::detect("tool", "#!/usr/bin/env python3\nimport sys\n").id, "python");
    EXPECT_EQ(Language::detect("tool.rb", "#!/usr/bin/env python3\nimport sys\n").id, "ruby");
    // Python text in a ".txt" with no shebang stays plain: its name says something.
    const std::string python = "import os\nimport sys\n\ndef main():\n    for name in os.listdir('.'):\n"
                               "        print(name)\n\nif __name__ == '__main__':\n    main()\n";
    EXPECT_EQ(Language::detect("notes.txt", python).id, "plain");
    EXPECT_EQ(Language::detect("notes", python).id, "python");
    EXPECT_EQ(Language::detect("", python).id, "python");
}

TEST(LanguageDetection, modeLinesNameTheLanguage) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"# -*- mode: python -*-\nx = 1\n", "python"},
        {"# -*- Mode: Ruby; coding: utf-8 -*-\n", "ruby"},
        {"/* -*- C++ -*- */\nint x;\n", "c"},                 // the short form
        {"# -*- coding: utf-8 -*-\n", ""},                     // a mode line that names no language
        {"x\ny\nz\n# vim: set ft=perl:\n", "perl"},            // among the last five
        {"// vim: set filetype=javascript :\n", "javascript"},
        {"; vi: syntax=lisp\n", "lisp"},
        {"# vim: ft=make\n", "make"},                           // an id is found before any alias
        {"' vim: ft=vb\n", "vb"},                               // the alias names nothing: by extension
        {"# vim: ft=yml\n", "yaml"},
        {"# ex: ft=cs\n", "csharp"},
        {"Set the mode: fast\n", ""},                            // a sentence is no mode line
        {"# vim: ft=nosuchlanguage\n", ""},
    };
    for (const auto& [sample, id] : cases) {
        SCOPED_TRACE(sample);
        EXPECT_EQ(LanguageChoices::modeline(sample).value_or(""), id);
    }
    // Only the first three and the last five lines are examined.
    std::string middle = "a\nb\nc\n# vim: ft=python\n";
    for (int line = 0; line < 10; ++line) {
        middle += "text\n";
    }
    EXPECT_FALSE(LanguageChoices::modeline(middle).has_value());
}

TEST(LanguageDetection, languageIDResolvesIdsNamesAliasesAndExtensions) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"rust", "rust"},  {"json", "json"}, {"shell", "shell"}, {"c++", "c"},       {"typescript", "javascript"},
        {"py", "python"},  {"text", "plain"}, {"tex", "latex"},  {"xml", "html"},    {"vb", "vb"},
        {"kt", "kotlin"},  {"csv / tsv", "csv"}, {"", ""},       {"klingon", ""},
    };
    for (const auto& [word, id] : cases) {
        SCOPED_TRACE(word);
        EXPECT_EQ(LanguageChoices::languageID(word).value_or(""), id);
    }
}

TEST(LanguageDetection, ambiguousExtensionsAreSettledByTheContent) {
    struct Case {
        std::string_view name;
        std::string_view sample;
        std::string_view id;
    };
    const Case cases[] = {
        {"f.m", "% compute the mean\nfunction m = f(x)\n  m = mean(x);\nend\n", "matlab"},
        {"f.m", "function y = square(x)\n  y = x.^2;\nend\n", "matlab"},
        {"f.m", "classdef Account < handle\n  properties\n    Balance = 0\n  end\nend\n", "matlab"},
        {"f.m", "#import <Foundation/Foundation.h>\n% not a comment here\n", "c"},
        {"f.m", "@implementation Account\n- (void)deposit {}\n@end\n", "c"},
        {"f.m", "x = 1;\n", "c"},
        {"f.M", "  % indented comment\n", "matlab"},
        {"a.js", "ObjC.import('Cocoa');\nconst app = Application.currentApplication();\n", "jxa"},
        {"a.js", "const app = Application(\"Finder\");\n", "jxa"},
        {"a.js", "console.log('hello');\nconst app = Application('Finder');\n", "javascript"},  // first line only
        {"a.mjs", "ObjC.import('Cocoa');\n", "javascript"},
        {"a.cls", "\\NeedsTeXFormat{LaTeX2e}\n\\ProvidesClass{thesis}\n\\LoadClass{report}\n", "latex"},
        {"a.cls", "VERSION 1.0 CLASS\nBEGIN\n  MultiUse = -1\nEND\nAttribute VB_Name = \"Account\"\n", "vb"},
        {"a.cls", "public with sharing class AccountService {\n    public static void run() {\n"
                  "        System.debug('x');\n    }\n}\n", "apex"},
        {"a.cls", "@IsTest\nprivate class AccountTest {\n}\n", "apex"},
        {"a.cls", "", "latex"},
        {"a.cls", "just words\n", "latex"},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(std::string(item.name) + ": " + std::string(item.sample));
        EXPECT_EQ(Language::detect(item.name, item.sample).id, item.id);
    }
}

TEST(LanguageDetection, aNameThatSaysNothingIsReadForWhatItIs) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"import os\nimport sys\n\nclass Reader(object):\n    def __init__(self, path):\n"
         "        self.path = path\n\n    def lines(self):\n        with open(self.path) as f:\n"
         "            return [l.rstrip() for l in f]\n\nif __name__ == '__main__':\n    print(Reader(sys.argv[1]).lines())\n",
         "python"},
        {"set -euo pipefail\nfor f in \"$@\"; do\n  if [ -f \"$f\" ]; then\n    echo \"$f\"\n  fi\ndone\n"
         "count=$(ls | wc -l)\nexport PATH=\"$HOME/bin:$PATH\"\nif [ -z \"$count\" ]; then\n  exit 1\nfi\n",
         "shell"},
        {"diff --git a/x.c b/x.c\nindex 1..2 100644\n--- a/x.c\n+++ b/x.c\n@@ -1,3 +1,3 @@\n-int a;\n+int b;\n", "diff"},
        {"--- a/x.c\n+++ b/x.c\n@@ -1 +1 @@\n-old\n+new\n", "diff"},
        {"{\n  \"name\": \"brim\",\n  \"version\": \"1.0.0\",\n  \"private\": true,\n  \"scripts\": {\"test\": \"x\"}\n}\n",
         "json"},
        {"<!DOCTYPE html>\n<html>\n<head><title>x</title></head>\n<body><div>hi</div></body>\n</html>\n", "html"},
        {"name,age,city\nAnna,31,Oslo\nBen,27,Rome\nCara,45,Lima\nDan,38,Kyiv\n", "csv"},
        {"digraph G {\n  a -> b;\n  b -> c;\n}\n", "dot"},
        {"@startuml\nAlice -> Bob: hello\n@enduml\n", "plantuml"},
        {"{\\rtf1\\ansi\\deff0 {\\fonttbl {\\f0 Times;}}\\f0 Hello}\n", "rtf"},
    };
    for (const auto& [sample, id] : cases) {
        SCOPED_TRACE(sample);
        EXPECT_EQ(Language::detect("", sample).id, id);
        EXPECT_EQ(Language::detect("/tmp/noextension", sample).id, id);
    }
}

TEST(LanguageDetection, proseStaysPlainText) {
    const std::string_view letters[] = {
        "Dear Anna,\n\nThank you for the lovely letter. I hope the garden is doing well and that the\n"
        "weather has been kind to you. We are planning to visit in the spring, if the trains\n"
        "are running, and would love to see the new house and the orchard behind it.\n\n"
        "With love,\nTom\n",
        "Meeting notes\n\n- Agree the budget for the next quarter\n- Ask the printer for a new quote\n"
        "- Select a date for the summer party (see the [calendar](https://example.org/cal))\n"
        "- Return the keys to the office before Friday\n",
        "The committee will review each application and report to the board. If you\n"
        "cannot attend, please send a note in advance. Public sessions begin at ten and end\n"
        "when the last item on the list has been heard. Private sessions follow after lunch.\n",
    };
    for (const auto letter : letters) {
        SCOPED_TRACE(letter);
        EXPECT_FALSE(LanguageChoices::best(letter, "").has_value());
        EXPECT_EQ(Language::detect("letter", letter).id, "plain");
    }
}

} // namespace
} // namespace brim

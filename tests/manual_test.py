# The manual pages and the source name the same log lines and the same keys.
import glob
import re
import unittest

from harness import ROOT, read

SOURCE = "".join(read(path) for path in glob.glob(f"{ROOT}/src/*/*.cc") + glob.glob(f"{ROOT}/src/*/*.h")
                 if not re.search("/src/(banner|check|main)/", path))
NOT_LOGGED = ("Fork failed", "Second fork failed", "Setsid failed", "Chdir failed",  # said by the command
              "Cannot open file", "Mapping failed", "Starting directory: ", "GET /",
              "ERROR:")  # a line of its own, before "path to non-cached"


# What a page lists with a macro: one quoted text or word an item.
def marked(page, macro):
    return re.findall(rf'^\.It {macro} "?([^"\n]*)"?$', read(f"{ROOT}/packaging/man/{page}"), re.MULTILINE)


class Manual(unittest.TestCase):
    def test_names_the_log_lines_of_the_source(self):
        lines = marked("marluserver.8", "Li")
        self.assertEqual([line for line in lines if line not in SOURCE], [])
        texts = [text.replace("\\n", "") for text in re.findall(r'"((?:\\n)?[A-Z][A-Za-z_]+[ :][^"\n]*)"', SOURCE)]
        self.assertEqual([text for text in texts if text not in NOT_LOGGED and not text.startswith(tuple(lines))], [])

    def test_names_the_keys_of_the_loader_and_its_table(self):
        in_table = re.findall(r'{"(\w+)", (?:true|false)}', SOURCE)
        in_loader = re.findall(r'\(settings, "(\w+)"(?:, "(\w+)")?', SOURCE)
        keys = sorted(marked("marluserver.cfg.5", "Ic"))
        self.assertEqual(sorted(in_table), keys)
        self.assertEqual(sorted({key for pair in in_loader for key in pair if key}), keys)

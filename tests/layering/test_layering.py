#!/usr/bin/env python3
"""The layering check must fail on a wrong-way include planted in a copy of
the sources, name the file, and pass on the untouched copy."""

import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
CHECK = ROOT / 'tools' / 'layering.py'
TABLE = ROOT / 'tools' / 'layers.txt'

# (what, file to plant into, line planted)
PLANTS = [
    ('logic reaching into widgets', 'core/DictoraState.cpp', '#include "home/HomeWindow.h"'),
    ('the controller naming a backend', 'dictation/DictoraController.cpp', '#include "platform/x11/X11WindowTracker.h"'),
    ('a backend reaching up to its factory', 'platform/x11/X11Platform.cpp', '#include "platform/services/PlatformServices.h"'),
    ('the seam reaching down to a backend', 'platform/WindowTracker.cpp', '#include "platform/x11/XConnection.h"'),
    ('a private dependency seen from above', 'app/ApplicationShell.cpp', '#include "platform/x11/X11Platform.h"'),
    ('Xlib in the overlay', 'overlay/MicOverlayPanel.cpp', '#include <X11/Xlib.h>'),
    ('the paste service using the shell', 'text/paste/PasteService.cpp', '#include "app/ProductionPorts.h"'),
]


def run_check(src):
    return subprocess.run([sys.executable, str(CHECK), '--src', str(src), '--table', str(TABLE)],
                          capture_output=True, text=True)


class LayeringCheck(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.pristine = pathlib.Path(cls.tmp.name) / 'pristine'
        shutil.copytree(ROOT / 'src', cls.pristine)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def test_untouched_tree_passes(self):
        result = run_check(self.pristine)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_planted_include_fails(self):
        for what, file, line in PLANTS:
            with self.subTest(what):
                copy = pathlib.Path(self.tmp.name) / 'planted'
                shutil.rmtree(copy, ignore_errors=True)
                shutil.copytree(self.pristine, copy)
                target = copy / file
                text = target.read_text(encoding='utf-8')
                target.write_text(line + '\n' + text, encoding='utf-8')
                result = run_check(copy)
                self.assertEqual(result.returncode, 1, result.stdout + result.stderr)
                self.assertIn(file, result.stdout)

    def test_folder_missing_from_table_fails(self):
        copy = pathlib.Path(self.tmp.name) / 'newfolder'
        shutil.rmtree(copy, ignore_errors=True)
        shutil.copytree(self.pristine, copy)
        (copy / 'wayland').mkdir()
        (copy / 'wayland' / 'Backend.cpp').write_text('#include "core/Error.h"\n', encoding='utf-8')
        result = run_check(copy)
        self.assertEqual(result.returncode, 1)
        self.assertIn('no line in the dependency table', result.stdout)


if __name__ == '__main__':
    unittest.main()

# Plays the text that RVK_TEXT names: what a person has before them. In the installed library's, RVK_SOURCE and RVK_BUILD are
# folders, RVK_CXX and RVK_CXXFLAGS the compiler; the LVDS test's pauses of 2 and 30 s end at once where strace says so.
import os

import transcript

transcript.main(os.environ["RVK_TEXT"])

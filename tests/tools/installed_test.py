"""The installed block library as somebody else uses it: put into an empty folder, found there by CMake and by pkg-config,
and a file copied through simulated cards and back with each program.

In the environment: RVK_BUILD and RVK_SOURCE, the build's folder and the source's; RVK_CXX and RVK_CXXFLAGS, its compiler.
"""
import glob
import os
import shutil
import subprocess
import tempfile

import bench

SOURCE, BUILD = os.environ.get("RVK_SOURCE", ""), os.environ.get("RVK_BUILD", "")
COMPILER, FLAGS = os.environ.get("RVK_CXX", "c++"), os.environ.get("RVK_CXXFLAGS", "")


def run(*command, **environment):
    done = subprocess.run(command, env={**os.environ, **environment}, capture_output=True, text=True, check=False)
    assert done.returncode == 0, f"{command}: {done.stdout}{done.stderr}"
    return done


class Installed(bench.BenchTest):
    def setUp(self):
        self.work = tempfile.mkdtemp(dir="/dev/shm")
        self.addCleanup(shutil.rmtree, self.work)
        run("cmake", "--install", BUILD, "--component", "rvkbus", "--prefix", f"{self.work}/moved")
        self.root = f"{self.work}/root"  # neither package file may depend on where it was installed
        os.rename(f"{self.work}/moved", self.root)
        self.program = f"{self.work}/example/bus_copy"

    def copies(self):
        cards, block, back, data = self.cards("--foreign", "1.0"), f"{self.work}/block", f"{self.work}/back", bench.content(7, 20_011)
        with open(block, "wb") as file:
            file.write(data)
        said = run(self.program, "to", "0", "0x1000000", block).stderr
        said += run(self.program, "from", "0", "0x1000000", back, "20011").stderr
        with open(back, "rb") as file:
            self.assertEqual(file.read(), data)
        self.assertEqual(said.count("\nsem_id = "), 2, f"the library's log is not on standard error: {said}")
        self.assertEqual(glob.glob("/var/log/rvk_log*"), [], "the library wrote a log file")
        self.assert_clean(cards)

    def test_is_found_by_cmake(self):
        headers = glob.glob(f"{self.root}/include/**/*.h", recursive=True)
        self.assertEqual([os.path.basename(header) for header in headers], ["rvkbus.h"])
        folder = os.path.dirname(self.program)
        run("cmake", "-G", "Ninja", "-S", f"{SOURCE}/examples/bus_copy", "-B", folder, f"-DCMAKE_PREFIX_PATH={self.root}",
            f"-DCMAKE_CXX_COMPILER={COMPILER}", f"-DCMAKE_CXX_FLAGS={FLAGS}")
        run("cmake", "--build", folder)
        self.copies()

    def test_is_found_by_pkg_config(self):
        bench.needs("pkg-config")
        os.mkdir(os.path.dirname(self.program))
        (package,) = glob.glob(f"{self.root}/**/rvkbus.pc", recursive=True)
        named = run("pkg-config", "--cflags", "--libs", "rvkbus", PKG_CONFIG_PATH=os.path.dirname(package)).stdout.split()
        run(COMPILER, "-std=c++20", *FLAGS.split(), "-o", self.program, f"{SOURCE}/examples/bus_copy/bus_copy.cpp", *named)
        self.copies()


bench.main()

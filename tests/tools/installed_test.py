"""The installed block library as somebody else uses it, with this build's compiler: RVK_SOURCE, RVK_BUILD, RVK_CXX, RVK_CXXFLAGS."""
import bench
import transcript

bench.needs("pkg-config")
transcript.main(__file__)

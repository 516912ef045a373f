"""The installed block library as somebody else uses it. RVK_SOURCE, RVK_BUILD: folders; RVK_CXX, RVK_CXXFLAGS: the compiler."""
import bench
import transcript

bench.needs("pkg-config")
transcript.main(__file__)

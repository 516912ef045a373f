"""The LVDS test as it is started at the bench. Its pauses of 2 and 30 s end at once where strace says so."""
import bench
import transcript

bench.needs("strace")
transcript.main(__file__)

"""Test pictures, each to be told from the others."""
import transcript

transcript.main(__file__)

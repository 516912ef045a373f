"""rvkdiag, as a person has it before them."""
import transcript

transcript.main(__file__)

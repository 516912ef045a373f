# scdoc puts a paragraph around each heading, in which nothing stands, and one at the end of each indented text, in place
# of behind it; mandoc complains of every one. A break is kept where text follows, behind the end of the indentation.
/^\.P$/ { held = 1; next }
/^\.RE$/ { print; after_heading = 0; next }
held && !/^\.S[HS]/ && !after_heading { print ".P" }
{ print; held = 0; after_heading = /^\.S[HS]/ }

# Two runs over a tree with what cannot be copied: a link, a pipe, and a file where the other tree has a directory.
mkdir -p source/inner destination/clash
echo one >source/one
echo two >source/inner/two
echo clash >source/clash
ln -s . source/loop
mkfifo source/pipe
"$@" source destination || echo "ended with $?"
rm source/clash
"$@" source destination
cat destination/inner/two
rm -r source destination

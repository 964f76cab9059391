# A folder with a plug-in, a library that is none, and a text. The last argument is the plug-in that was built.
mkdir plugins
cp "${*: -1}" plugins/sum.so
echo "no library" >plugins/broken.so
"${@:1:$#-1}" plugins | sed -E 's,(skipped: Kest: ).*/([a-z.]*): .*,\1(path)/\2: (the loader'"'"'s words),'
rm -r plugins

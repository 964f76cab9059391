# Starts the server at a port of the system's choice, and talks to it as two clients that send two lines at once. Ends the server while one
# client stays.
"$@" 127.0.0.1:0 >server.output &
server=$!
for _ in {1..500}; do
    grep -q listening server.output && break
    sleep 0.01
done
port=$(sed -n 's/^listening at 127.0.0.1://p' server.output)
exec 3<>"/dev/tcp/127.0.0.1/$port" 4<>"/dev/tcp/127.0.0.1/$port"
for client in 3 4; do
    printf 'from client %d\nand again\n' "$client" >&"$client"
    for _ in 1 2; do
        read -r -t 10 line <&"$client"
        echo "$line"
    done
done
exec 3>&-
kill -INT "$server"
wait "$server"
tail -n 1 server.output
rm server.output

# A script runtime's streams that end one side at a time. On the first connection the server ends
# first and still hears; on the second this ends its sending and reads the answer to its end. Prints
# what it saw, and writes how long each connection took to steps.txt.
#   half_close.rb ADDRESS PORT SIZE
require "socket"

ADDRESS, PORT = ARGV[0], ARGV[1].to_i
BODY = "half a connection is open\n" * (ARGV[2].to_i / 26)

def step(name)
  start = Time.now
  begin
    yield
  rescue SystemCallError => error
    puts "#{name}: #{error.class}"
  end
  File.open("steps.txt", "a") { |file| file.puts("#{name} #{((Time.now - start) * 1000).to_i}") }
end

def peer(socket)
  "the peer is #{socket.peeraddr(false)[3]}:#{socket.peeraddr(false)[1]}"
end

def told(name, answer)
  puts "#{name}: #{answer.size} bytes, sum #{answer.sum(32)}"
end

Socket.do_not_reverse_lookup = true
step("server-ends-first") do
  socket = TCPSocket.new(ADDRESS, PORT)
  puts peer(socket)
  socket.write("server first\n")
  answer = socket.read
  socket.write(BODY)
  told("server first", answer)
  socket.close
end
step("game-ends-first") do
  socket = TCPSocket.new(ADDRESS, PORT)
  puts peer(socket)
  socket.write("game first\n" + BODY)
  socket.close_write
  told("game first", socket.read)
  socket.close
end

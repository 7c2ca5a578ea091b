# A script runtime's streams that end one side at a time. On the first connection it sends, ends its
# sending and reads the answer to its end; on the second the server ends first and is still heard; on
# the third it sends and leaves at once. Prints what it saw, and writes how long each connection took
# to steps.txt.
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

def names(socket)
  "#{socket.addr[3]} to #{socket.peeraddr(false)[3]}:#{socket.peeraddr(false)[1]}"
end

def told(name, answer)
  puts "#{name}: #{answer.size} bytes, sum #{answer.sum(32)}"
end

Socket.do_not_reverse_lookup = true
step("game-ends-first") do
  socket = TCPSocket.new(ADDRESS, PORT)
  puts names(socket)
  socket.write("game first\n" + BODY)
  socket.close_write
  told("game first", socket.read)
  socket.close
end
step("server-ends-first") do
  socket = TCPSocket.new(ADDRESS, PORT)
  puts names(socket)
  socket.write("server first\n")
  answer = socket.read
  socket.write(BODY)
  told("server first", answer)
  socket.close
end
step("sends-and-leaves") do
  socket = TCPSocket.new(ADDRESS, PORT)
  socket.write("nothing back\n" + BODY)
  socket.close
end

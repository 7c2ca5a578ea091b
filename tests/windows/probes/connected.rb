# A script runtime's connected datagram socket: asks an echo server question by question, waiting in
# select, and prints what came back and its peer's name. Writes how long the first answer and
# all others took to steps.txt.
#   connected.rb ADDRESS PORT COUNT
require "socket"

PATIENCE_S = 15 # nothing is sent again: what is lost stays lost
Socket.do_not_reverse_lookup = true
socket = UDPSocket.new
socket.connect(ARGV[0], ARGV[1].to_i)

def step(name, start)
  File.open("steps.txt", "a") { |file| file.puts("#{name} #{((Time.now - start) * 1000).to_i}") }
  Time.now
end

start = Time.now
ARGV[2].to_i.times do |number|
  socket.send("question #{number} " + "x" * (number * 10), 0)
  if IO.select([socket], nil, nil, PATIENCE_S).nil?
    puts "lost"
    exit 3
  end
  data, from = socket.recvfrom(4096)
  puts "#{data} from #{from[3]}:#{from[1]}"
  start = step("first-answer", start) if number == 0
end
step("all-answers", start)
puts "the peer is #{socket.peeraddr(false)[3]}:#{socket.peeraddr(false)[1]}"
